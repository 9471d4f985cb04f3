#ifndef NIMBRA_TESTS_E2E_APARTMENT_H_
#define NIMBRA_TESTS_E2E_APARTMENT_H_

#include <windows.h>

#include <objbase.h>

namespace e2e {

// The calling thread may use COM while this exists.
class Apartment {
 public:
  explicit Apartment(DWORD kind = COINIT_MULTITHREADED) : result_(CoInitializeEx(nullptr, kind)) {}
  Apartment(const Apartment&) = delete;
  Apartment& operator=(const Apartment&) = delete;
  ~Apartment() {
    if (SUCCEEDED(result_)) CoUninitialize();
  }

 private:
  HRESULT result_;
};

}  // namespace e2e

#endif  // NIMBRA_TESTS_E2E_APARTMENT_H_
