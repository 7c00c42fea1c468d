// ThreadSanitizer cannot see the reference count of an exception held by a
// std::exception_ptr: it is changed inside libstdc++, which is not
// instrumented. A future that carries a failed lookup's exception to another
// thread then shows its destruction, wherever the last reference goes, as a
// race with the reads made while it was caught. Only those reports, whose
// stack passes through exception_ptr's release, are suppressed.
#if defined(__SANITIZE_THREAD__)
extern "C" const char* __tsan_default_suppressions() {
  return "race:std::__exception_ptr::exception_ptr::_M_release\n";
}
#endif
