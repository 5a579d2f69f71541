#pragma once

/// Marks what libKivVeltro.so.0 exports; everything else in it is hidden.
#define VELTRO_API __attribute__((visibility("default")))
