// The platform's exception family.
//
// Exception keeps its own copy of a wide message, the source location of the
// raise (ExWhere) and, optionally, an owned copy of the exception that caused
// it. what() renders the message as UTF-8. clone() returns a heap copy of the
// same dynamic class; the caller owns it.
//
// ExSystem is a failed system call: it carries the errno value and the
// system's text for it.
//
// The subject of a failure (the path and operation of a file error, the type
// or key concerned) is added as context: what() is the fixed message followed
// by " (" context ")", so the fixed text always stays the first part.
//
// Exception::Post reports an exception from a thread on which nobody can catch
// it. It clones the exception and hands the clone to the process-wide post
// handler, on the posting thread, then deletes the clone. The default handler
// writes one line to stderr; an application may install its own.
//
// Thread-safety: an Exception object belongs to one thread at a time. Post and
// SetPostHandler may be called from any thread.
#pragma once

#include <exception>
#include <memory>
#include <string>

#include "pt/Export.h"

namespace Pt {

// Where an exception was raised: a source path and a line.
struct ExWhere {
  const char* file = "";
  int line = 0;
};

// The argument record from which an exception is built. `message` need only
// live until the constructor returns; the exception copies it.
struct ExReason {
  const wchar_t* message = L"";
  ExWhere where;
  int flags = 1;
};

class PT_EXPORT Exception : public std::exception {
 public:
  explicit Exception(const ExReason& reason);
  Exception(const ExReason& reason, const Exception& nested);
  Exception(const Exception& other);
  Exception& operator=(const Exception& other);
  ~Exception() override;

  // The message as UTF-8.
  const char* what() const noexcept override;
  // A heap copy of the same dynamic class; the caller deletes it.
  virtual Exception* clone() const;

  const std::wstring& message() const noexcept { return message_; }
  const ExWhere& where() const noexcept { return where_; }
  int flags() const noexcept { return flags_; }
  // The exception that caused this one, or null. Owned by this object.
  const Exception* nested() const noexcept { return nested_.get(); }
  // What the failure concerned (UTF-8), e.g. `open "/var/cache/a.tarn"`;
  // empty when nothing was added. Several additions are joined by "; ".
  const std::string& context() const noexcept { return context_; }
  // Adds `utf8` to context() and to what(); message() stays the fixed text.
  // Throws std::bad_alloc only.
  void addContext(const std::string& utf8);

  // Receives posted exceptions. Called on the posting thread; the exception is
  // valid only during the call.
  using PostHandler = void (*)(const Exception& posted, void* context);

  static void Post(const Exception& exception);
  // Installs `handler` (null restores the default) and returns the previous
  // handler and its context through the out-parameters when they are given.
  static void SetPostHandler(PostHandler handler, void* context, PostHandler* previous = nullptr,
                             void** previousContext = nullptr);

 private:
  std::wstring message_;
  std::string utf8_;  // what(): the message as UTF-8, then the context
  std::string context_;
  ExWhere where_;
  int flags_ = 1;
  std::unique_ptr<Exception> nested_;
};

class PT_EXPORT ExSystem : public Exception {
 public:
  // `code` is an errno value; the message is the system's text for it.
  ExSystem(int code, const ExWhere& where);
  ExSystem(const ExSystem& other) = default;
  ExSystem& operator=(const ExSystem& other) = default;
  ~ExSystem() override;

  Exception* clone() const override;
  int code() const noexcept { return code_; }

 private:
  int code_;
};

// The calling thread's last system error code (errno).
PT_EXPORT int ErrorCode() noexcept;

}  // namespace Pt
