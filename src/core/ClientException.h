// The exception in flight, whatever was thrown, as a Pt::Exception.
//
// Factories and objects are application code: create(), decode(), verify(),
// size() and encode() may throw anything. The cache hands every failure to
// the receivers waiting for the key, and a receiver's failed() takes a
// Pt::Exception, so whatever else was thrown is wrapped in one raised at
// kClientThrew whose message carries the original what() (or says that the
// thrown value was not a std::exception).
//
// Thread-safety: none needed; it works on the calling thread's exception.
#pragma once

#include <memory>

#include "pt/Exception.h"

namespace Tarn {

// Call only inside a catch handler. Returns a copy of the exception being
// handled: a Pt::Exception keeps its dynamic class (a clone), anything else
// is wrapped. Throws std::bad_alloc only.
std::unique_ptr<Pt::Exception> CaughtAsPtException();

// The wrapping of a foreign exception whose text is `what` (null: a thrown
// value that has no text).
Pt::Exception ForeignException(const char* what);

}  // namespace Tarn
