// An exception is looked at by throwing it again, which is the one way to its type. A class of
// exceptions may carry another inside; these are followed to the last.
#include "threads/ExceptionText.h"

#include <cxxabi.h>

#include <cassert>
#include <cstdlib>
#include <exception>
#include <memory>
#include <typeinfo>

#include "VarnSupport/VarnFunctions.h"
#include "runtime/Cancellation.h"

namespace VarnSupport {

namespace {

struct Description {
  std::string type;  // empty for what is not of a class of exceptions
  std::string text;
  std::exception_ptr nested;
};

std::string nameOf(const std::type_info& type) {
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> name(
      abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), &std::free);
  return name != nullptr ? name.get() : type.name();
}

template <typename Exception>
std::exception_ptr nestedIn(const Exception& exception) {
  const auto* const nested = dynamic_cast<const std::nested_exception*>(&exception);
  return nested != nullptr ? nested->nested_ptr() : nullptr;
}

// Of an exception alone, without what is nested in it.
Description describe(const std::exception_ptr& exception) {
  try {
    std::rethrow_exception(exception);
  } catch (const VarnException& thrown) {
    return {"VarnException " + std::to_string(thrown.getCode()), thrown.getText(),
            nestedIn(thrown)};
  } catch (const std::exception& thrown) {
    return {nameOf(typeid(thrown)), thrown.what(), nestedIn(thrown)};
  } catch (const std::string& thrown) {
    return {{}, thrown, {}};
  } catch (const char* thrown) {
    return {{}, thrown != nullptr ? thrown : "", {}};
  } catch (int thrown) {
    return {{}, std::to_string(thrown), {}};
  } catch (...) {
    const std::type_info* const type = abi::__cxa_current_exception_type();
    return {{}, type != nullptr ? nameOf(*type) : "unknown exception", {}};
  }
}

}  // namespace

std::string VarnWhat(const std::exception_ptr& exception) {
  const CancellationGuard closed;
  std::string text;
  for (std::exception_ptr next = exception; next != nullptr;) {
    const Description described = describe(next);
    if (!text.empty())
      text += ": ";
    text += described.text;
    next = described.nested;
  }
  return text;
}

// A handler for all exceptions may have caught what is none.
std::string VarnWhat() {
  const std::exception_ptr exception = std::current_exception();
  if (exception == nullptr && isInHandlerOfExceptions())
    throw;
  return VarnWhat(exception);
}

std::string describeException() {
  const std::exception_ptr exception = std::current_exception();
  assert(exception != nullptr);
  std::string text = describe(exception).type;
  if (!text.empty())
    text += ": ";
  return text += VarnWhat(exception);
}

}  // namespace VarnSupport
