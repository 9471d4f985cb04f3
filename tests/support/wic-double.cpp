#include "tests/support/wic-double.h"

#include <cstring>
#include <utility>

namespace nimbra_test {
namespace {

// Hands a reference to `object` out unless the operation is to fail.
template <typename Interface, typename Object>
HRESULT HandOut(HRESULT result, Object& object, Interface** out) {
  *out = nullptr;
  if (SUCCEEDED(result)) {
    object.AddRef();
    *out = &object;
  }
  return result;
}

}  // namespace

template <typename Interface>
BitmapSourceDouble<Interface>::BitmapSourceDouble(CallJournal& journal, std::string name,
                                                  const IID& iid, const WicScript& script,
                                                  const BYTE& fill)
    : ComDouble<Interface>(journal, std::move(name), {IID_IUnknown, IID_IWICBitmapSource, iid}),
      script_(script),
      fill_(fill) {}

template <typename Interface>
HRESULT BitmapSourceDouble<Interface>::GetSize(UINT* width, UINT* height) {
  this->Note("GetSize");
  if (SUCCEEDED(script_.getSize)) {
    *width = script_.width;
    *height = script_.height;
  }
  return script_.getSize;
}

template <typename Interface>
HRESULT BitmapSourceDouble<Interface>::GetPixelFormat(WICPixelFormatGUID* format) {
  this->Note("GetPixelFormat");
  if (SUCCEEDED(script_.getPixelFormat)) *format = script_.pixelFormat;
  return script_.getPixelFormat;
}

template <typename Interface>
HRESULT BitmapSourceDouble<Interface>::CopyPixels(const WICRect* rectangle, UINT stride, UINT size,
                                                  BYTE* bits) {
  const TestScope scope;
  this->Note("CopyPixels " + std::to_string(rectangle->X) + " " + std::to_string(rectangle->Y) +
             " " + std::to_string(rectangle->Width) + " " + std::to_string(rectangle->Height) +
             ", " + std::to_string(stride) + ", " + std::to_string(size));
  copiedTo = bits;
  if (SUCCEEDED(script_.copyPixels)) std::memset(bits, fill_, size);
  return script_.copyPixels;
}

template class BitmapSourceDouble<IWICBitmapFrameDecode>;
template class BitmapSourceDouble<IWICFormatConverter>;

FrameDouble::FrameDouble(CallJournal& journal, const WicScript& script)
    : BitmapSourceDouble(journal, "frame", IID_IWICBitmapFrameDecode, script, script.frameFill) {}

ConverterDouble::ConverterDouble(CallJournal& journal, const WicScript& script)
    : BitmapSourceDouble(journal, "converter", IID_IWICFormatConverter, script,
                         script.converterFill) {}

HRESULT ConverterDouble::Initialize(IWICBitmapSource* from, REFWICPixelFormatGUID format,
                                    WICBitmapDitherType dither, IWICPalette* palette,
                                    double alphaThreshold, WICBitmapPaletteType paletteType) {
  const TestScope scope;
  Note("Initialize " + GuidText(format) + ", " + std::to_string(dither) + ", " +
       (palette == nullptr ? "no palette" : "a palette") + ", " + std::to_string(alphaThreshold) +
       ", " + std::to_string(paletteType));
  source = from;
  return script_.initialize;
}

DecoderDouble::DecoderDouble(CallJournal& journal, const WicScript& script, FrameDouble& frame)
    : ComDouble(journal, "decoder", {IID_IUnknown, IID_IWICBitmapDecoder}),
      script_(script),
      frame_(frame) {}

HRESULT DecoderDouble::GetFrame(UINT index, IWICBitmapFrameDecode** out) {
  const TestScope scope;
  Note("GetFrame " + std::to_string(index));
  return HandOut(script_.getFrame, frame_, out);
}

FactoryDouble::FactoryDouble(CallJournal& journal, const WicScript& script, DecoderDouble& decoder,
                             ConverterDouble& converter)
    : ComDouble(journal, "factory", {IID_IUnknown, IID_IWICImagingFactory}),
      script_(script),
      decoder_(decoder),
      converter_(converter) {}

HRESULT FactoryDouble::CreateDecoderFromStream(IStream* from, const GUID* vendor,
                                               WICDecodeOptions options, IWICBitmapDecoder** out) {
  const TestScope scope;
  Note("CreateDecoderFromStream " + (vendor != nullptr ? GuidText(*vendor) : "any vendor") + ", " +
       std::to_string(options));
  stream = from;
  return HandOut(script_.createDecoder, decoder_, out);
}

HRESULT FactoryDouble::CreateFormatConverter(IWICFormatConverter** out) {
  Note("CreateFormatConverter");
  return HandOut(script_.createConverter, converter_, out);
}

}  // namespace nimbra_test
