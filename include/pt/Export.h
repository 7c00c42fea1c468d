// Symbol visibility of the platform layer. The platform layer is compiled into
// libtarn.so, which hides every symbol by default; the few platform types that
// the Tarn API exposes to applications are marked PT_EXPORT.
#pragma once

#define PT_EXPORT __attribute__((visibility("default")))
