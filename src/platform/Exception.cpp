#include "pt/Exception.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/Utf8.h"
#include "pt/PlainMutex.h"

namespace Pt {
namespace {

// One line: the exception, where it was raised, and what caused it.
void WriteToStderr(const Exception& posted, void* /*context*/) {
  std::string line = "tarn:";
  for (const Exception* e = &posted; e != nullptr; e = e->nested()) {
    if (e != &posted) line += " <- caused by:";
    line += std::string(" ") + e->what() + " (" + (e->where().file ? e->where().file : "") + ":" +
            std::to_string(e->where().line) + ")";
  }
  std::fprintf(stderr, "%s\n", line.c_str());
}

// The post handler is read on every Post and replaced rarely; a mutex keeps a
// handler and its context consistent with each other.
struct PostTarget {
  PlainMutex mutex;
  Exception::PostHandler handler PT_GUARDED_BY(mutex) = WriteToStderr;
  void* context PT_GUARDED_BY(mutex) = nullptr;
};

PostTarget& ThePostTarget() {
  static PostTarget target;
  return target;
}

std::wstring SystemMessage(int code) {
  char buffer[256];
  // GNU strerror_r returns the text, which may or may not live in `buffer`.
  const char* text = strerror_r(code, buffer, sizeof buffer);
  std::wstring message;
  for (const char* p = text; *p != '\0'; ++p) message.push_back(static_cast<unsigned char>(*p));
  return message;
}

}  // namespace

Exception::Exception(const ExReason& reason)
    : message_(reason.message ? reason.message : L""),
      utf8_(WideToUtf8Lossy(message_)),
      where_(reason.where),
      flags_(reason.flags) {}

Exception::Exception(const ExReason& reason, const Exception& nested) : Exception(reason) {
  nested_.reset(nested.clone());
}

Exception::Exception(const Exception& other)
    : std::exception(other),
      message_(other.message_),
      utf8_(other.utf8_),
      context_(other.context_),
      where_(other.where_),
      flags_(other.flags_),
      nested_(other.nested_ ? other.nested_->clone() : nullptr) {}

Exception& Exception::operator=(const Exception& other) {
  if (this != &other) {
    std::unique_ptr<Exception> nested(other.nested_ ? other.nested_->clone() : nullptr);
    message_ = other.message_;
    utf8_ = other.utf8_;
    context_ = other.context_;
    where_ = other.where_;
    flags_ = other.flags_;
    nested_ = std::move(nested);
  }
  return *this;
}

Exception::~Exception() = default;

const char* Exception::what() const noexcept {
  return utf8_.c_str();
}

void Exception::addContext(const std::string& utf8) {
  if (utf8.empty()) return;
  context_ += context_.empty() ? utf8 : "; " + utf8;
  utf8_ = WideToUtf8Lossy(message_) + " (" + context_ + ")";
}

Exception* Exception::clone() const {
  return new Exception(*this);
}

void Exception::Post(const Exception& exception) {
  // The clone lets the caller destroy its object as soon as Post returns,
  // whatever the handler keeps.
  const std::unique_ptr<Exception> posted(exception.clone());
  PostHandler handler;
  void* context;
  {
    PostTarget& target = ThePostTarget();
    PlainLock guard(target.mutex);
    handler = target.handler;
    context = target.context;
  }
  handler(*posted, context);
}

void Exception::SetPostHandler(PostHandler handler, void* context, PostHandler* previous,
                               void** previousContext) {
  PostTarget& target = ThePostTarget();
  PlainLock guard(target.mutex);
  if (previous) *previous = target.handler == WriteToStderr ? nullptr : target.handler;
  if (previousContext) *previousContext = target.context;
  target.handler = handler ? handler : WriteToStderr;
  target.context = handler ? context : nullptr;
}

ExSystem::ExSystem(int code, const ExWhere& where)
    : Exception(ExReason{SystemMessage(code).c_str(), where, 1}), code_(code) {}

ExSystem::~ExSystem() = default;

Exception* ExSystem::clone() const {
  return new ExSystem(*this);
}

int ErrorCode() noexcept {
  return errno;
}

}  // namespace Pt
