#pragma once

/// Marks what libkiv.so.0 exports; everything else in it is hidden.
#define KIV_API __attribute__((visibility("default")))
