// A raw handle is the IUnknown of its object.
#include "platform/wmi.h"

#include <cstddef>
#include <cstring>

#include "platform/windows/runtime/guid_cast.h"
#include "platform/windows/runtime/windows_api.h"
// These need windows.h.
#include <oleauto.h>
#include <wbemidl.h>

namespace platform {

static_assert(sizeof(RawVariant) == sizeof(VARIANT) &&
              offsetof(RawVariant, value) == offsetof(VARIANT, llVal));
static_assert(kTooLate == RPC_E_TOO_LATE && kNoInterface == E_NOINTERFACE &&
              kPointer == E_POINTER && kNotInitialized == CO_E_NOTINITIALIZED &&
              kWbemNotFound == HResultOf(WBEM_E_NOT_FOUND) &&
              kWbemInvalidNamespace == HResultOf(WBEM_E_INVALID_NAMESPACE) &&
              kWbemInvalidClass == HResultOf(WBEM_E_INVALID_CLASS) &&
              kWbemInvalidQuery == HResultOf(WBEM_E_INVALID_QUERY) &&
              HResultFromWin32(ERROR_GEN_FAILURE) == __HRESULT_FROM_WIN32(ERROR_GEN_FAILURE));
static_assert(kVtNull == VT_NULL && kVtI4 == VT_I4 && kVtBstr == VT_BSTR && kVtArray == VT_ARRAY);
static_assert(kWbemStatusComplete == WBEM_STATUS_COMPLETE &&
              kWbemStatusProgress == WBEM_STATUS_PROGRESS);
static_assert(IsSameGuid(kIidUnknown, __uuidof(IUnknown)) &&
              IsSameGuid(kIidWbemObjectSink, __uuidof(IWbemObjectSink)));
static_assert(sizeof(HResult) == sizeof(HRESULT) && sizeof(char16_t) == sizeof(OLECHAR));

namespace {

const OLECHAR* Wide(const char16_t* text) { return reinterpret_cast<const OLECHAR*>(text); }

class Bstr {
 public:
  explicit Bstr(const OLECHAR* text) : raw_(::SysAllocString(text)) {}
  ~Bstr() { ::SysFreeString(raw_); }
  Bstr(const Bstr&) = delete;
  Bstr& operator=(const Bstr&) = delete;
  BSTR Raw() const { return raw_; }

 private:
  BSTR raw_;
};

class Variant {
 public:
  Variant() { ::VariantInit(&raw_); }
  ~Variant() { ::VariantClear(&raw_); }
  Variant(const Variant&) = delete;
  Variant& operator=(const Variant&) = delete;
  VARIANT* Raw() { return &raw_; }
  const VARIANT& operator*() const { return raw_; }

 private:
  VARIANT raw_{};  // zero after a value that is smaller
};

template <class Interface, class Owner>
Interface* Held(const Owner& owner) {
  return static_cast<Interface*>(static_cast<IUnknown*>(owner.Raw()));
}

RawHandle Hold(IUnknown* object) { return object; }

std::vector<std::uint32_t> ReadNumbers(SAFEARRAY* array) {
  LONG lower = 0;
  LONG upper = -1;
  std::vector<std::uint32_t> numbers;
  if (::SafeArrayGetDim(array) != 1 || FAILED(::SafeArrayGetLBound(array, 1, &lower)) ||
      FAILED(::SafeArrayGetUBound(array, 1, &upper)))
    return numbers;
  for (LONG index = lower; index <= upper; ++index) {
    LONG element = 0;
    if (FAILED(::SafeArrayGetElement(array, &index, &element))) break;
    numbers.push_back(static_cast<std::uint32_t>(element));
  }
  return numbers;
}

WbemValue TextValue(BSTR text) {
  WbemValue value;
  value.kind = WbemValue::kText;
  value.text.assign(text, text + ::SysStringLen(text));  // a null BSTR has length 0
  return value;
}

WbemValue NumberValue(long long number) {
  WbemValue value;
  value.kind = WbemValue::kNumber;
  value.number = static_cast<std::uint32_t>(number);
  return value;
}

WbemValue NumbersValue(SAFEARRAY* array) {
  WbemValue value;
  value.kind = WbemValue::kNumbers;
  value.numbers = ReadNumbers(array);
  return value;
}

WbemValue ReadVariant(const VARIANT& variant) {
  switch (variant.vt) {
    case VT_BSTR:
      return TextValue(variant.bstrVal);
    case VT_I4:
      return NumberValue(variant.lVal);
    case VT_UI4:
      return NumberValue(variant.ulVal);
    case VT_I2:
      return NumberValue(variant.iVal);
    case VT_UI2:
      return NumberValue(variant.uiVal);
    case VT_UI1:
      return NumberValue(variant.bVal);
    case VT_BOOL:
      return NumberValue(variant.boolVal == VARIANT_FALSE ? 0 : 1);
    case VT_ARRAY | VT_I4:
      return NumbersValue(variant.parray);
    default:
      return {};
  }
}

// Returns whether a VARIANT of this type holds its value itself: a number, a date, a truth value.
bool IsPlain(VARTYPE type) {
  switch (type) {
    case VT_I1:
    case VT_I2:
    case VT_I4:
    case VT_I8:
    case VT_UI1:
    case VT_UI2:
    case VT_UI4:
    case VT_UI8:
    case VT_INT:
    case VT_UINT:
    case VT_R4:
    case VT_R8:
    case VT_CY:
    case VT_DATE:
    case VT_BOOL:
    case VT_ERROR:
      return true;
    default:
      return false;
  }
}

}  // namespace

void ReleaseUnknown(RawHandle raw) { static_cast<IUnknown*>(raw)->Release(); }

HResult CoInitializeEx() { return ::CoInitializeEx(nullptr, COINIT_MULTITHREADED); }

HResult CoIncrementMTAUsage() {
  CO_MTA_USAGE_COOKIE cookie;
  return ::CoIncrementMTAUsage(&cookie);
}

HResult CoInitializeSecurity() {
  return ::CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_DEFAULT,
                                RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE, nullptr);
}

void CoUninitialize() { ::CoUninitialize(); }

HResult CreateWbemLocator(WbemLocator* locator) {
  void* raw = nullptr;
  const HRESULT result =
      ::CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemLocator, &raw);
  locator->Reset(Hold(static_cast<IWbemLocator*>(raw)));
  return result;
}

HResult ConnectServer(const WbemLocator& locator, const char16_t* wmiNamespace,
                      WbemServices* services) {
  const Bstr path(Wide(wmiNamespace));
  IWbemServices* raw = nullptr;
  const HRESULT result = Held<IWbemLocator>(locator)->ConnectServer(
      path.Raw(), nullptr, nullptr, nullptr, 0, nullptr, nullptr, &raw);
  services->Reset(Hold(raw));
  return result;
}

HResult CoSetProxyBlanket(const WbemServices& services) {
  return ::CoSetProxyBlanket(Held<IWbemServices>(services), RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE,
                             nullptr, RPC_C_AUTHN_LEVEL_CALL, RPC_C_IMP_LEVEL_IMPERSONATE, nullptr,
                             EOAC_NONE);
}

HResult ExecQuery(const WbemServices& services, const char16_t* query, WbemEnumerator* rows) {
  const Bstr language(L"WQL");
  const Bstr text(Wide(query));
  IEnumWbemClassObject* raw = nullptr;
  const HRESULT result = Held<IWbemServices>(services)->ExecQuery(
      language.Raw(), text.Raw(), WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY, nullptr,
      &raw);
  rows->Reset(Hold(raw));
  return result;
}

HResult NextObject(const WbemEnumerator& rows, WbemObject* row) {
  IWbemClassObject* raw = nullptr;
  ULONG count = 0;
  const HRESULT result =
      Held<IEnumWbemClassObject>(rows)->Next(static_cast<LONG>(WBEM_INFINITE), 1, &raw, &count);
  row->Reset(Hold(raw));
  return result;
}

HResult GetProperty(const WbemObject& row, const char16_t* name, WbemValue* value) {
  Variant variant;
  const HRESULT result =
      Held<IWbemClassObject>(row)->Get(Wide(name), 0, variant.Raw(), nullptr, nullptr);
  *value = FAILED(result) ? WbemValue{} : ReadVariant(*variant);
  return result;
}

HResult GetRawProperty(const WbemObject& row, const char16_t* name, RawVariant* value) {
  *value = {};
  Variant variant;
  const HRESULT result =
      Held<IWbemClassObject>(row)->Get(Wide(name), 0, variant.Raw(), nullptr, nullptr);
  if (FAILED(result)) return result;
  value->type = (*variant).vt;
  if (IsPlain(value->type)) std::memcpy(value, variant.Raw(), sizeof *value);
  return result;
}

WbemObject ShareObject(RawHandle object) {
  if (object != nullptr) static_cast<IUnknown*>(object)->AddRef();
  return WbemObject(object);
}

HResult ExecQueryAsync(const WbemServices& services, const char16_t* query, ObjectSink* sink) {
  const Bstr language(L"WQL");
  const Bstr text(Wide(query));
  return Held<IWbemServices>(services)->ExecQueryAsync(language.Raw(), text.Raw(),
                                                       WBEM_FLAG_SEND_STATUS, nullptr,
                                                       reinterpret_cast<IWbemObjectSink*>(sink));
}

}  // namespace platform
