#pragma once
#include <cassert>

/// Ends the process as the standard assert does, with the expression's text, in every build:
/// for set-up failures after which nothing can go on.
#define VELTRO_FATAL_CHECK(expression) \
  ((expression) ? void() : __assert_fail(#expression, __FILE__, __LINE__, __extension__ __func__))
