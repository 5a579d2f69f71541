#pragma once

// The C library's own, which <assert.h> declares only without NDEBUG.
extern "C" __attribute__((noreturn)) void __assert_fail(char const* expression, char const* file,
                                                        unsigned line,
                                                        char const* function) noexcept;

/// Ends the process as the standard assert does, with the expression's text, in every build: for
/// failures after which nothing can go on.
#define VELTRO_FATAL_CHECK(expression) \
  ((expression) ? void() : __assert_fail(#expression, __FILE__, __LINE__, __func__))
