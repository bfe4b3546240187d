// The root of the object classes; any thread.

#include <cstdlib>
#include <memory>
#include <typeinfo>

#include <cxxabi.h>

#include <ZembraPlatform/NSObject.h>

namespace zembra {

NSObject::~NSObject() = default;

std::string NSObject::className() const {
    const char* const mangled = typeid(*this).name();
    const std::unique_ptr<char, decltype(&std::free)> demangled(
        abi::__cxa_demangle(mangled, nullptr, nullptr, nullptr), &std::free);
    const std::string name = demangled ? demangled.get() : mangled;
    const std::size_t scope = name.rfind("::");
    return scope == std::string::npos ? name : name.substr(scope + 2);
}

const ClassDescription* NSObject::classDescription() const noexcept {
    return nullptr;
}

}  // namespace zembra
