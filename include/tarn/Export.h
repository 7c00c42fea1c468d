// Symbol visibility of the Tarn API. libtarn.so hides every symbol by default;
// exported classes and functions are marked TARN_EXPORT.
#pragma once

#define TARN_EXPORT __attribute__((visibility("default")))
