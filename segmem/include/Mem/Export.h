#pragma once

/// Marks what libSegMem.so.0 exports; everything else in it is hidden.
#define MEM_API __attribute__((visibility("default")))
