#include "tests/faults/gate.h"

#include <objbase.h>
#include <shlobj.h>
#include <wincodec.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "common/cldapi-table.h"
#include "tests/dll/image.h"
#include "tests/support/temp-folder.h"
#include "tests/support/test-scope.h"

namespace nimbra_test {
namespace {

constexpr char kAllocation[] = "allocation";
// Those of operator new alone: what the runtime does not allocate for itself.
constexpr char kOperatorNew[] = "operator new";
constexpr std::size_t kMostArguments = 14;

// Stores the arguments in registers to their places on the stack and calls the second address with
// the first one and the stack:
//   mov [rsp+8], rcx; mov [rsp+16], rdx; mov [rsp+24], r8; mov [rsp+32], r9
//   mov rcx, gate; mov rdx, rsp; mov rax, enter; sub rsp, 40; call rax; add rsp, 40; ret
constexpr std::array<std::uint8_t, 54> kThunk = {
    0x48, 0x89, 0x4C, 0x24, 0x08, 0x48, 0x89, 0x54, 0x24, 0x10, 0x4C, 0x89, 0x44, 0x24,
    0x18, 0x4C, 0x89, 0x4C, 0x24, 0x20, 0x48, 0xB9, 0,    0,    0,    0,    0,    0,
    0,    0,    0x48, 0x89, 0xE2, 0x48, 0xB8, 0,    0,    0,    0,    0,    0,    0,
    0,    0x48, 0x83, 0xEC, 0x28, 0xFF, 0xD0, 0x48, 0x83, 0xC4, 0x28, 0xC3};
constexpr std::size_t kGateAddress = 22;
constexpr std::size_t kEnterAddress = 35;
constexpr std::size_t kThunkStride = 64;

// Memory for thunks. Never given back: patched interface tables lead there for good.
void* NewThunk(const void* gate, const void* enter) {
  static std::uint8_t* next = nullptr;
  static std::size_t left = 0;
  if (left < kThunkStride) {
    left = 0x10000;
    next = static_cast<std::uint8_t*>(
        VirtualAlloc(nullptr, left, MEM_RESERVE | MEM_COMMIT, PAGE_EXECUTE_READWRITE));
    if (next == nullptr) {
      throw std::runtime_error("no memory for thunks");
    }
  }
  std::memcpy(next, kThunk.data(), kThunk.size());
  std::memcpy(next + kGateAddress, &gate, sizeof gate);
  std::memcpy(next + kEnterAddress, &enter, sizeof enter);
  left -= kThunkStride;
  return std::exchange(next, next + kThunkStride);
}

void WriteSlot(void** slot, void* value) {
  DWORD protection = 0;
  if (!VirtualProtect(slot, sizeof *slot, PAGE_READWRITE, &protection)) {
    throw std::runtime_error("a slot cannot be written");
  }
  *slot = value;
  VirtualProtect(slot, sizeof *slot, protection, &protection);
}

// The platform's function of that name: the recording platform's.
// NOLINTNEXTLINE(readability-function-size): a table.
void* RecordedCloudFunction(std::string_view name) {
  const auto& cloud = corvdrive::cloud_filter::Cloud();
#define NIMBRA_CLOUD(function) \
  if (name == #function) return reinterpret_cast<void*>(cloud.function)
  NIMBRA_CLOUD(CfGetPlatformInfo);
  NIMBRA_CLOUD(CfRegisterSyncRoot);
  NIMBRA_CLOUD(CfUnregisterSyncRoot);
  NIMBRA_CLOUD(CfConnectSyncRoot);
  NIMBRA_CLOUD(CfDisconnectSyncRoot);
  NIMBRA_CLOUD(CfGetSyncRootInfoByPath);
  NIMBRA_CLOUD(CfGetTransferKey);
  NIMBRA_CLOUD(CfReleaseTransferKey);
  NIMBRA_CLOUD(CfExecute);
  NIMBRA_CLOUD(CfReportProviderProgress);
  NIMBRA_CLOUD(CfCreatePlaceholders);
  NIMBRA_CLOUD(CfConvertToPlaceholder);
  NIMBRA_CLOUD(CfUpdatePlaceholder);
  NIMBRA_CLOUD(CfRevertPlaceholder);
  NIMBRA_CLOUD(CfHydratePlaceholder);
  NIMBRA_CLOUD(CfDehydratePlaceholder);
  NIMBRA_CLOUD(CfSetPinState);
  NIMBRA_CLOUD(CfSetInSyncState);
  NIMBRA_CLOUD(CfGetPlaceholderInfo);
  NIMBRA_CLOUD(CfGetPlaceholderStateFromFindData);
  NIMBRA_CLOUD(CfReferenceProtectedHandle);
  NIMBRA_CLOUD(CfGetWin32HandleFromProtectedHandle);
  NIMBRA_CLOUD(CfReleaseProtectedHandle);
#undef NIMBRA_CLOUD
  return nullptr;
}

// Interfaces that the library is given, with the methods in the order of their tables. The first
// ones of a derived interface bear the name of the interface that declares them.
struct Interface {
  const char* name;
  IID id;
  std::vector<const char*> methods;
};

const std::vector<Interface>& Interfaces() {
  static const auto& interfaces = *new std::vector<Interface>{
      {"IShellLinkW",
       IID_IShellLinkW,
       {"GetPath", "GetIDList", "SetIDList", "GetDescription", "SetDescription",
        "GetWorkingDirectory", "SetWorkingDirectory", "GetArguments", "SetArguments", "GetHotkey",
        "SetHotkey", "GetShowCmd", "SetShowCmd", "GetIconLocation", "SetIconLocation",
        "SetRelativePath", "Resolve", "SetPath"}},
      {"IPersistFile",
       IID_IPersistFile,
       {"GetClassID", "IsDirty", "Load", "Save", "SaveCompleted", "GetCurFile"}},
      {"IStream",
       IID_IStream,
       {"Read", "Write", "Seek", "SetSize", "CopyTo", "Commit", "Revert", "LockRegion",
        "UnlockRegion", "Stat", "Clone"}},
      {"IWICImagingFactory",
       IID_IWICImagingFactory,
       {"CreateDecoderFromFilename",
        "CreateDecoderFromStream",
        "CreateDecoderFromFileHandle",
        "CreateComponentInfo",
        "CreateDecoder",
        "CreateEncoder",
        "CreatePalette",
        "CreateFormatConverter",
        "CreateBitmapScaler",
        "CreateBitmapClipper",
        "CreateBitmapFlipRotator",
        "CreateStream",
        "CreateColorContext",
        "CreateColorTransformer",
        "CreateBitmap",
        "CreateBitmapFromSource",
        "CreateBitmapFromSourceRect",
        "CreateBitmapFromMemory",
        "CreateBitmapFromHBITMAP",
        "CreateBitmapFromHICON",
        "CreateComponentEnumerator",
        "CreateFastMetadataEncoderFromDecoder",
        "CreateFastMetadataEncoderFromFrameDecode",
        "CreateQueryWriter",
        "CreateQueryWriterFromReader"}},
      {"IWICBitmapDecoder",
       IID_IWICBitmapDecoder,
       {"QueryCapability", "Initialize", "GetContainerFormat", "GetDecoderInfo", "CopyPalette",
        "GetMetadataQueryReader", "GetPreview", "GetColorContexts", "GetThumbnail", "GetFrameCount",
        "GetFrame"}},
      {"IWICBitmapSource",
       IID_IWICBitmapSource,
       {"GetSize", "GetPixelFormat", "GetResolution", "CopyPalette", "CopyPixels"}},
      {"IWICBitmapFrameDecode",
       IID_IWICBitmapFrameDecode,
       {"IWICBitmapSource::GetSize", "IWICBitmapSource::GetPixelFormat",
        "IWICBitmapSource::GetResolution", "IWICBitmapSource::CopyPalette",
        "IWICBitmapSource::CopyPixels", "GetMetadataQueryReader", "GetColorContexts",
        "GetThumbnail"}},
      {"IWICFormatConverter",
       IID_IWICFormatConverter,
       {"IWICBitmapSource::GetSize", "IWICBitmapSource::GetPixelFormat",
        "IWICBitmapSource::GetResolution", "IWICBitmapSource::CopyPalette",
        "IWICBitmapSource::CopyPixels", "Initialize", "CanConvert"}},
      {"IShellItem2",
       IID_IShellItem2,
       {"BindToHandler", "GetParent", "GetDisplayName", "GetAttributes", "Compare",
        "GetPropertyStore", "GetPropertyStoreWithCreateObject", "GetPropertyStoreForKeys",
        "GetPropertyDescriptionList", "Update", "GetProperty", "GetCLSID", "GetFileTime",
        "GetInt32", "GetString", "GetUInt32", "GetUInt64", "GetBool"}},
  };
  return interfaces;
}

// Calls that give an object: where its address is written (counted from 1) and its interface. An
// interface of null is named by the argument before.
struct ObjectOutput {
  const char* function;
  std::size_t argument;
  const char* interfaceName;
};
constexpr ObjectOutput kObjectOutputs[] = {
    {"SHCreateStreamOnFileW", 3, "IStream"},
    {"CoCreateInstance", 5, nullptr},
    {"IWICImagingFactory::CreateDecoderFromStream", 5, "IWICBitmapDecoder"},
    {"IWICImagingFactory::CreateFormatConverter", 2, "IWICFormatConverter"},
    {"IWICBitmapDecoder::GetFrame", 3, "IWICBitmapFrameDecode"},
};

const ObjectOutput* OutputOf(std::string_view function) {
  static constexpr ObjectOutput kQuery = {nullptr, 3, nullptr};
  if (function.ends_with("::QueryInterface")) {
    return &kQuery;
  }
  const auto* const found =
      std::find_if(std::begin(kObjectOutputs), std::end(kObjectOutputs),
                   [&](const ObjectOutput& output) { return function == output.function; });
  return found == std::end(kObjectOutputs) ? nullptr : found;
}

CallGates* current = nullptr;

// Where operator new calls malloc: whoever allocates first while watched is taken for it, which
// MeetException sees to.
std::uintptr_t operatorNew = 0;

using Function = std::uintptr_t (*)(std::uintptr_t, std::uintptr_t, std::uintptr_t, std::uintptr_t,
                                    std::uintptr_t, std::uintptr_t, std::uintptr_t, std::uintptr_t,
                                    std::uintptr_t, std::uintptr_t, std::uintptr_t, std::uintptr_t,
                                    std::uintptr_t, std::uintptr_t);

std::uintptr_t CallOriginal(void* original, const std::uintptr_t* a) {
  static_assert(kMostArguments == 14);
  return reinterpret_cast<Function>(original)(a[0], a[1], a[2], a[3], a[4], a[5], a[6], a[7], a[8],
                                              a[9], a[10], a[11], a[12], a[13]);
}

std::uintptr_t ImageEnd(HMODULE image) {
  const auto base = reinterpret_cast<std::uintptr_t>(image);
  const auto* const dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
  const auto* const headers =
      reinterpret_cast<const IMAGE_NT_HEADERS*>(base + static_cast<std::uintptr_t>(dos->e_lfanew));
  return base + headers->OptionalHeader.SizeOfImage;
}

}  // namespace

// One function, or one method of one class. Gates live for ever, as their thunks do.
struct CallGates::Gate {
  const FunctionRow* row;
  // Null for a method without a row.
  std::string name;
  void* original;
  bool isMethod;
  // What the name stands for as a part of a fault: all allocators are one function.
  std::string faultName;
};

struct CallGates::Call {
  const Gate& gate;
  // The return address, and behind it the arguments.
  const std::uintptr_t* frame;
  std::string faultName;
  std::uintptr_t result = 0;
  DWORD lastError = 0;
  bool failed = false;

  std::uintptr_t Argument(std::size_t n) const { return frame[n]; }
  template <typename T>
  T* Pointer(std::size_t n) const {
    return reinterpret_cast<T*>(frame[n]);
  }
};

CallGates::CallGates(HMODULE image) : image_(image), imageEnd_(ImageEnd(image)) {
  if (current != nullptr) {
    throw std::logic_error("two images are watched at a time");
  }
  for (const ImportSlot& import : ImportSlots(image)) {
    imports_.push_back(import.function);
    const FunctionRow* const row = FindFunction(import.function);
    if (row == nullptr) {
      unknown_.insert(import.library + "!" + import.function);
    } else if (row->treatment != Treatment::kUntouched) {
      Gate& gate = AddGate(*row, *import.slot);
      slots_.push_back(import.slot);
      WriteSlot(import.slot, NewThunk(&gate, reinterpret_cast<void*>(&CallGates::Enter)));
    }
  }
  current = this;
}

CallGates::~CallGates() {
  // The slots go with the image.
  current = nullptr;
}

CallGates::Gate& CallGates::AddGate(const FunctionRow& row, void* original) {
  const bool allocates = row.treatment == Treatment::kAllocates;
  return *new Gate{&row, row.name, original, false, allocates ? kAllocation : row.name};
}

void CallGates::Begin() { Begin(Fault()); }

void CallGates::Begin(const Fault& fault) {
  const std::lock_guard lock(mutex_);
  observation_ = {};
  fault_ = fault;
  observing_ = true;
}

Observation CallGates::End() {
  const std::lock_guard lock(mutex_);
  observing_ = false;
  return std::move(observation_);
}

Holdings CallGates::Held() const {
  const std::lock_guard lock(mutex_);
  Holdings held = held_;
  held["memory block"] = static_cast<std::int64_t>(blocks_.size());
  std::int64_t bytes = 0;
  for (const auto& [address, size] : blocks_) {
    bytes += static_cast<std::int64_t>(size);
  }
  held["memory byte"] = bytes;
  return held;
}

std::vector<std::string> CallGates::Unknown() const {
  const std::lock_guard lock(mutex_);
  return {unknown_.begin(), unknown_.end()};
}

void CallGates::Hold(const char* resource, std::int64_t change) {
  if (resource != nullptr) {
    held_[resource] += change;
  }
}

void CallGates::GiveBack(const char* resource) {
  const std::lock_guard lock(mutex_);
  Hold(resource, -1);
}

void CallGates::Watch(IUnknown* object, const char* interfaceName) {
  const std::lock_guard lock(mutex_);
  WatchTable(*reinterpret_cast<void***>(object), interfaceName);
}

void CallGates::WatchTable(void** table, const char* interfaceName) {
  static auto& watched = *new std::set<void**>;
  if (!watched.insert(table).second) {
    return;
  }
  const auto& interfaces = Interfaces();
  const auto found = std::find_if(interfaces.begin(), interfaces.end(), [&](const Interface& one) {
    return std::strcmp(one.name, interfaceName) == 0;
  });
  std::vector<std::string> methods = {"QueryInterface", "AddRef", "Release"};
  methods.insert(methods.end(), found->methods.begin(), found->methods.end());
  for (std::size_t i = 0; i < methods.size(); ++i) {
    const std::string name =
        methods[i].find("::") != std::string::npos ? methods[i] : found->name + ("::" + methods[i]);
    auto* const gate = new Gate{FindFunction(name), name, table[i], true, name};
    WriteSlot(&table[i], NewThunk(gate, reinterpret_cast<void*>(&CallGates::Enter)));
  }
}

void* CallGates::CloudFunction(const char* name) {
  const FunctionRow* const row = FindFunction(name);
  void* const original = RecordedCloudFunction(name);
  if (row == nullptr || original == nullptr) {
    unknown_.insert(std::string("cldapi.dll!") + name);
    return nullptr;
  }
  Gate& gate = AddGate(*row, original);
  return NewThunk(&gate, reinterpret_cast<void*>(&CallGates::Enter));
}

// A function of a system DLL that the image loads when it first needs it.
void* CallGates::SystemFunction(HMODULE module, const char* name) {
  auto* const original = reinterpret_cast<void*>(GetProcAddress(module, name));
  const FunctionRow* const row = FindFunction(name);
  if (row == nullptr || original == nullptr) {
    unknown_.insert(libraries_[module] + "!" + name);
    return nullptr;
  }
  return NewThunk(&AddGate(*row, original), reinterpret_cast<void*>(&CallGates::Enter));
}

// Counts the call; whether it is the one to fail.
bool CallGates::Count(Call& call) {
  const FunctionRow* const row = call.gate.row;
  call.faultName = call.gate.faultName;
  if (call.gate.name == "GetProcAddress") {
    call.faultName += ":" + std::string(call.Pointer<const char>(2));
  } else if (call.gate.name == "LoadLibraryExW") {
    call.faultName += ":" + Narrow(call.Pointer<const wchar_t>(1));
  }
  if (row == nullptr) {
    unknown_.insert(call.gate.name);
    return false;
  }
  if (!observing_) {
    return false;
  }
  int n = ++observation_.calls[call.faultName];
  if (n == 1) {
    observation_.order.push_back(call.faultName);
  }
  if (call.faultName == kAllocation) {
    // Relative to the image, which may lie elsewhere the next time.
    const std::uintptr_t caller = call.frame[0] - reinterpret_cast<std::uintptr_t>(image_);
    if (operatorNew == 0) {
      operatorNew = caller;
    }
    if (caller == operatorNew) {
      const int newCalls = ++observation_.calls[kOperatorNew];
      if (fault_.function == kOperatorNew) {
        call.faultName = kOperatorNew;
        n = newCalls;
      }
    }
  }
  if (fault_.function != call.faultName || n < fault_.n || n > fault_.last ||
      (n > fault_.n && !fault_.persistent)) {
    return false;
  }
  observation_.hasFailed = true;
  call.failed = true;
  call.result = fault_.code.result;
  call.lastError = fault_.code.lastError;
  return true;
}

// Calls that get their answer here and not from the system.
bool CallGates::Answer(Call& call) {
  const std::string& name = call.gate.name;
  if (name == "OutputDebugStringW") {
    if (observing_) {
      observation_.lines.push_back(Narrow(call.Pointer<const wchar_t>(1)));
    }
    // Writing to the debugger may change the last error.
    call.lastError = 0x5EED;
    return true;
  }
  if (AnswerLoading(call)) {
    return true;
  }
  // The image is not pinned really, so that it can be loaded afresh.
  if (name == "GetModuleHandleExW" && (call.Argument(1) & GET_MODULE_HANDLE_EX_FLAG_PIN) != 0) {
    call.result = TRUE;
    return true;
  }
  if (name == "CoRegisterClassObject") {
    classObject_ = call.Pointer<IUnknown>(2);
    *call.Pointer<DWORD>(5) = 4711;
    return true;
  }
  // Nothing ends this wait; the thread ends without it.
  return name == "CoWaitForMultipleHandles";
}

bool CallGates::AnswerLoading(Call& call) {
  const HMODULE platform = GetModuleHandleW(nullptr);
  if (call.gate.name == "LoadLibraryExW") {
    call.result = reinterpret_cast<std::uintptr_t>(platform);
    return std::wstring_view(call.Pointer<const wchar_t>(1)) == L"cldapi.dll";
  }
  if (call.gate.name != "GetProcAddress") {
    return false;
  }
  // The runtime looks functions up, too, in DLLs that it has not loaded.
  auto* const module = call.Pointer<std::remove_pointer_t<HMODULE>>(1);
  const auto library = libraries_.find(module);
  if (library == libraries_.end()) {
    return false;
  }
  const auto* const function = call.Pointer<const char>(2);
  observation_.libraries[function] = library->second;
  call.result = reinterpret_cast<std::uintptr_t>(
      module == platform ? CloudFunction(function) : SystemFunction(module, function));
  call.lastError = call.result == 0 ? ERROR_PROC_NOT_FOUND : ERROR_SUCCESS;
  return true;
}

void CallGates::WatchOutput(const Call& call) {
  if (call.gate.name == "LoadLibraryExW") {
    const std::string library = Narrow(call.Pointer<const wchar_t>(1));
    if (!MayBeLoaded(library, static_cast<DWORD>(call.Argument(3)))) {
      unknown_.insert("LoadLibraryExW with these folders for " + library);
    }
    libraries_[reinterpret_cast<HMODULE>(call.result)] = library;
    return;
  }
  const ObjectOutput* const output = OutputOf(call.gate.name);
  if (output == nullptr) {
    return;
  }
  auto* const object = *call.Pointer<IUnknown*>(output->argument);
  const char* name = output->interfaceName;
  if (name == nullptr) {
    const IID& id = *call.Pointer<const IID>(output->argument - 1);
    for (const Interface& one : Interfaces()) {
      if (one.id == id) {
        name = one.name;
      }
    }
    if (name == nullptr) {
      unknown_.insert("an interface that " + call.gate.name + " was asked for");
      return;
    }
  }
  WatchTable(*reinterpret_cast<void***>(object), name);
}

void CallGates::Account(const Call& call) {
  const FunctionRow& row = *call.gate.row;
  const std::string& name = call.gate.name;
  if (name == "free") {
    blocks_.erase(call.Argument(1));
  } else if (row.treatment == Treatment::kAllocates || name == "calloc" || name == "realloc") {
    if (call.result != 0) {
      const std::size_t size = name == "calloc"    ? call.Argument(1) * call.Argument(2)
                               : name == "realloc" ? call.Argument(2)
                               : name == "malloc"  ? call.Argument(1)
                                                   : std::strlen(call.Pointer<char>(1)) + 1;
      if (name == "realloc") {
        blocks_.erase(call.Argument(1));
      }
      blocks_[call.result] = size;
    }
  } else if (row.closes != nullptr) {
    if (call.Argument(1) != 0) {
      Hold(row.closes, -1);
    }
  } else if (row.treatment == Treatment::kWatched || nimbra_test::Succeeded(row, call.result)) {
    Hold(row.opens, 1);
    WatchOutput(call);
  }
}

std::uintptr_t CallGates::Enter(Gate* gate, const std::uintptr_t* frame) {
  const DWORD lastError = GetLastError();
  CallGates* const self = current;
  const std::uintptr_t caller = frame[0];
  if (self == nullptr ||
      (gate->isMethod &&
       (caller < reinterpret_cast<std::uintptr_t>(self->image_) || caller >= self->imageEnd_))) {
    return CallOriginal(gate->original, frame + 1);
  }
  const TestScope scope;
  Call call{*gate, frame, {}, 0, lastError};
  bool isAnswered = false;
  // What is freed may be handed out again before the account knows.
  const bool frees = gate->row != nullptr && gate->row->treatment == Treatment::kCloses;
  {
    const std::lock_guard lock(self->mutex_);
    isAnswered = self->Count(call) || self->Answer(call);
    if (frees) {
      self->Account(call);
    }
  }
  if (!isAnswered) {
    SetLastError(lastError);
    call.result = CallOriginal(gate->original, frame + 1);
    call.lastError = GetLastError();
  }
  if (!call.failed && !frees && gate->row != nullptr) {
    const std::lock_guard lock(self->mutex_);
    self->Account(call);
  }
  SetLastError(call.lastError);
  return call.result;
}

}  // namespace nimbra_test
