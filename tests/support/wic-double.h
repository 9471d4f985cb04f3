#ifndef NIMBRA_TESTS_SUPPORT_WIC_DOUBLE_H_
#define NIMBRA_TESTS_SUPPORT_WIC_DOUBLE_H_

#include <windows.h>

#include <objidl.h>
#include <wincodec.h>

#include "tests/support/com-double.h"

namespace nimbra_test {

// How the imaging component of a test behaves: what it shows, and what each operation gives.
struct WicScript {
  HRESULT createDecoder = S_OK;
  HRESULT getFrame = S_OK;
  HRESULT getPixelFormat = S_OK;
  HRESULT createConverter = S_OK;
  HRESULT initialize = S_OK;
  HRESULT getSize = S_OK;
  HRESULT copyPixels = S_OK;
  GUID pixelFormat = GUID_WICPixelFormat32bppBGRA;
  UINT width = 2;
  UINT height = 3;
  // What the frame's and the converter's pixels consist of.
  BYTE frameFill = 0x11;
  BYTE converterFill = 0x22;
};

// A stream that nothing is read from.
class StreamDouble final : public ComDouble<IStream> {
 public:
  explicit StreamDouble(CallJournal& journal)
      : ComDouble(journal, "stream", {IID_IUnknown, IID_ISequentialStream, IID_IStream}) {}

  STDMETHODIMP Read(void*, ULONG, ULONG*) override { return Unexpected(); }
  STDMETHODIMP Write(const void*, ULONG, ULONG*) override { return Unexpected(); }
  STDMETHODIMP Seek(LARGE_INTEGER, DWORD, ULARGE_INTEGER*) override { return Unexpected(); }
  STDMETHODIMP SetSize(ULARGE_INTEGER) override { return Unexpected(); }
  STDMETHODIMP CopyTo(IStream*, ULARGE_INTEGER, ULARGE_INTEGER*, ULARGE_INTEGER*) override {
    return Unexpected();
  }
  STDMETHODIMP Commit(DWORD) override { return Unexpected(); }
  STDMETHODIMP Revert() override { return Unexpected(); }
  STDMETHODIMP LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return Unexpected(); }
  STDMETHODIMP UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return Unexpected(); }
  STDMETHODIMP Stat(STATSTG*, DWORD) override { return Unexpected(); }
  STDMETHODIMP Clone(IStream**) override { return Unexpected(); }
};

// What a frame and a converter have in common: they show pixels.
template <typename Interface>
class BitmapSourceDouble : public ComDouble<Interface> {
 public:
  BitmapSourceDouble(CallJournal& journal, std::string name, const IID& iid,
                     const WicScript& script, const BYTE& fill);

  STDMETHODIMP GetSize(UINT* width, UINT* height) override;
  STDMETHODIMP GetPixelFormat(WICPixelFormatGUID* format) override;
  STDMETHODIMP CopyPixels(const WICRect* rectangle, UINT stride, UINT size, BYTE* bits) override;
  STDMETHODIMP GetResolution(double*, double*) override { return this->Unexpected(); }
  STDMETHODIMP CopyPalette(IWICPalette*) override { return this->Unexpected(); }

  // Where the pixels were last copied to.
  const BYTE* copiedTo = nullptr;

 protected:
  const WicScript& script_;

 private:
  const BYTE& fill_;
};

class FrameDouble final : public BitmapSourceDouble<IWICBitmapFrameDecode> {
 public:
  FrameDouble(CallJournal& journal, const WicScript& script);

  STDMETHODIMP GetMetadataQueryReader(IWICMetadataQueryReader**) override { return Unexpected(); }
  STDMETHODIMP GetColorContexts(UINT, IWICColorContext**, UINT*) override { return Unexpected(); }
  STDMETHODIMP GetThumbnail(IWICBitmapSource**) override { return Unexpected(); }
};

class ConverterDouble final : public BitmapSourceDouble<IWICFormatConverter> {
 public:
  ConverterDouble(CallJournal& journal, const WicScript& script);

  STDMETHODIMP Initialize(IWICBitmapSource* source, REFWICPixelFormatGUID format,
                          WICBitmapDitherType dither, IWICPalette* palette, double alphaThreshold,
                          WICBitmapPaletteType paletteType) override;
  STDMETHODIMP CanConvert(REFWICPixelFormatGUID, REFWICPixelFormatGUID, WINBOOL*) override {
    return Unexpected();
  }

  IWICBitmapSource* source = nullptr;
};

class DecoderDouble final : public ComDouble<IWICBitmapDecoder> {
 public:
  DecoderDouble(CallJournal& journal, const WicScript& script, FrameDouble& frame);

  STDMETHODIMP GetFrame(UINT index, IWICBitmapFrameDecode** out) override;

  STDMETHODIMP QueryCapability(IStream*, DWORD*) override { return Unexpected(); }
  STDMETHODIMP Initialize(IStream*, WICDecodeOptions) override { return Unexpected(); }
  STDMETHODIMP GetContainerFormat(GUID*) override { return Unexpected(); }
  STDMETHODIMP GetDecoderInfo(IWICBitmapDecoderInfo**) override { return Unexpected(); }
  STDMETHODIMP CopyPalette(IWICPalette*) override { return Unexpected(); }
  STDMETHODIMP GetMetadataQueryReader(IWICMetadataQueryReader**) override { return Unexpected(); }
  STDMETHODIMP GetPreview(IWICBitmapSource**) override { return Unexpected(); }
  STDMETHODIMP GetColorContexts(UINT, IWICColorContext**, UINT*) override { return Unexpected(); }
  STDMETHODIMP GetThumbnail(IWICBitmapSource**) override { return Unexpected(); }
  STDMETHODIMP GetFrameCount(UINT*) override { return Unexpected(); }

 private:
  const WicScript& script_;
  FrameDouble& frame_;
};

class FactoryDouble final : public ComDouble<IWICImagingFactory> {
 public:
  FactoryDouble(CallJournal& journal, const WicScript& script, DecoderDouble& decoder,
                ConverterDouble& converter);

  STDMETHODIMP CreateDecoderFromStream(IStream* stream, const GUID* vendor,
                                       WICDecodeOptions options, IWICBitmapDecoder** out) override;
  STDMETHODIMP CreateFormatConverter(IWICFormatConverter** out) override;

  // The stream that the decoder was made for.
  IStream* stream = nullptr;

  STDMETHODIMP CreateDecoderFromFilename(LPCWSTR, const GUID*, DWORD, WICDecodeOptions,
                                         IWICBitmapDecoder**) override {
    return Unexpected();
  }
  STDMETHODIMP CreateDecoderFromFileHandle(ULONG_PTR, const GUID*, WICDecodeOptions,
                                           IWICBitmapDecoder**) override {
    return Unexpected();
  }
  STDMETHODIMP CreateComponentInfo(REFCLSID, IWICComponentInfo**) override { return Unexpected(); }
  STDMETHODIMP CreateDecoder(REFGUID, const GUID*, IWICBitmapDecoder**) override {
    return Unexpected();
  }
  STDMETHODIMP CreateEncoder(REFGUID, const GUID*, IWICBitmapEncoder**) override {
    return Unexpected();
  }
  STDMETHODIMP CreatePalette(IWICPalette**) override { return Unexpected(); }
  STDMETHODIMP CreateBitmapScaler(IWICBitmapScaler**) override { return Unexpected(); }
  STDMETHODIMP CreateBitmapClipper(IWICBitmapClipper**) override { return Unexpected(); }
  STDMETHODIMP CreateBitmapFlipRotator(IWICBitmapFlipRotator**) override { return Unexpected(); }
  STDMETHODIMP CreateStream(IWICStream**) override { return Unexpected(); }
  STDMETHODIMP CreateColorContext(IWICColorContext**) override { return Unexpected(); }
  STDMETHODIMP CreateColorTransformer(IWICColorTransform**) override { return Unexpected(); }
  STDMETHODIMP CreateBitmap(UINT, UINT, REFWICPixelFormatGUID, WICBitmapCreateCacheOption,
                            IWICBitmap**) override {
    return Unexpected();
  }
  STDMETHODIMP CreateBitmapFromSource(IWICBitmapSource*, WICBitmapCreateCacheOption,
                                      IWICBitmap**) override {
    return Unexpected();
  }
  STDMETHODIMP CreateBitmapFromSourceRect(IWICBitmapSource*, UINT, UINT, UINT, UINT,
                                          IWICBitmap**) override {
    return Unexpected();
  }
  STDMETHODIMP CreateBitmapFromMemory(UINT, UINT, REFWICPixelFormatGUID, UINT, UINT, BYTE*,
                                      IWICBitmap**) override {
    return Unexpected();
  }
  STDMETHODIMP CreateBitmapFromHBITMAP(HBITMAP, HPALETTE, WICBitmapAlphaChannelOption,
                                       IWICBitmap**) override {
    return Unexpected();
  }
  STDMETHODIMP CreateBitmapFromHICON(HICON, IWICBitmap**) override { return Unexpected(); }
  STDMETHODIMP CreateComponentEnumerator(DWORD, DWORD, IEnumUnknown**) override {
    return Unexpected();
  }
  STDMETHODIMP CreateFastMetadataEncoderFromDecoder(IWICBitmapDecoder*,
                                                    IWICFastMetadataEncoder**) override {
    return Unexpected();
  }
  STDMETHODIMP CreateFastMetadataEncoderFromFrameDecode(IWICBitmapFrameDecode*,
                                                        IWICFastMetadataEncoder**) override {
    return Unexpected();
  }
  STDMETHODIMP CreateQueryWriter(REFGUID, const GUID*, IWICMetadataQueryWriter**) override {
    return Unexpected();
  }
  STDMETHODIMP CreateQueryWriterFromReader(IWICMetadataQueryReader*, const GUID*,
                                           IWICMetadataQueryWriter**) override {
    return Unexpected();
  }

 private:
  const WicScript& script_;
  DecoderDouble& decoder_;
  ConverterDouble& converter_;
};

// An imaging component of the test's own.
struct WicDouble {
  explicit WicDouble(CallJournal& journal)
      : frame(journal, script),
        converter(journal, script),
        decoder(journal, script, frame),
        factory(journal, script, decoder, converter) {}

  WicScript script;
  FrameDouble frame;
  ConverterDouble converter;
  DecoderDouble decoder;
  FactoryDouble factory;
};

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_WIC_DOUBLE_H_
