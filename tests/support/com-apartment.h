#ifndef NIMBRA_TESTS_SUPPORT_COM_APARTMENT_H_
#define NIMBRA_TESTS_SUPPORT_COM_APARTMENT_H_

#include <windows.h>
// windows.h first.
#include <objbase.h>

#include <stdexcept>

namespace nimbra_test {

// Has COM initialised on the current thread for the object's lifetime.
class ComApartment {
 public:
  explicit ComApartment(DWORD model) {
    if (FAILED(CoInitializeEx(nullptr, model))) {
      throw std::runtime_error("COM cannot be initialised");
    }
  }
  ~ComApartment() { CoUninitialize(); }
  ComApartment(const ComApartment&) = delete;
  ComApartment& operator=(const ComApartment&) = delete;
};

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_COM_APARTMENT_H_
