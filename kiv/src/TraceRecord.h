#pragma once
#include <string>

namespace Kiv {

/// The format of every record from now on; empty means the default one.
void traceFormatIs(std::string const& format);

/// Writes all of `text` to standard error, in one write(2) where the kernel takes it in one.
/// What cannot be written is dropped. errno is kept.
void traceWrite(std::string const& text);

}  // namespace Kiv
