#pragma once
#include <gmock/gmock.h>

#include <string>

#include "Veltro/Exception.h"

namespace Veltro {

/// Matches a callable that fails an assertion of `file` in `function`, with exactly this text.
inline auto asserts(std::string const& file, std::string const& function, std::string const& text) {
  return testing::Throws<AssertException>(
      testing::Property(&AssertException::message,
                        testing::AllOf(testing::StartsWith(file + ":" + function + ":"),
                                       testing::ResultOf(
                                           [](std::string const& message) {
                                             std::size_t const afterLine = message.find(": ");
                                             return afterLine == std::string::npos
                                                        ? std::string("no text: " + message)
                                                        : message.substr(afterLine + 2);
                                           },
                                           testing::Eq(text)))));
}

}  // namespace Veltro
