// How the platform's structures check their own invariants.
//
// Each structure that lists invariants in its header has a
// `bool checkInvariants() const` that walks the whole structure and returns
// false at the first broken one (it never throws and changes nothing), so a
// stress test can call it in every build and a unit test can see it catch a
// structure broken on purpose. Debug builds also check after each change,
// through PT_DEBUG_CHECK, but only while the structure is small: a full walk
// after every request of a deep queue would make debug runs quadratic.
#pragma once

#include <cassert>
#include <cstddef>

namespace Pt {

// Debug builds check a structure after each change while it holds at most
// this many elements.
constexpr size_t kDebugCheckLimit = 64;

}  // namespace Pt

#ifdef NDEBUG
#define PT_DEBUG_CHECK(size, check) ((void)0)
#else
#define PT_DEBUG_CHECK(size, check) assert((size) > ::Pt::kDebugCheckLimit || (check))
#endif
