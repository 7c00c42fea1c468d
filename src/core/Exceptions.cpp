#include "tarn/Exceptions.h"

#include "core/Messages.h"

namespace Tarn {

// The family always builds its reason with flags 1; Pt::Exception copies the
// message, so the caller's text need not outlive the constructor.
ExBase::ExBase(const wchar_t* message, const Pt::ExWhere& where)
    : Pt::Exception(Pt::ExReason{message, where, 1}) {}

ExBase::ExBase(const wchar_t* message, const Pt::ExWhere& where, const Pt::Exception& nested)
    : Pt::Exception(Pt::ExReason{message, where, 1}, nested) {}

ExBase::ExBase(const ExBase& other) = default;
ExBase& ExBase::operator=(const ExBase& other) = default;
ExBase::~ExBase() = default;

// Only reached for an ExBase sliced out of a subclass; keeps it an ExBase.
Pt::Exception* ExBase::clone() const {
  return new ExBase(*this);
}

// The eight subclasses differ only in their name and message code. `Name` is
// a class name and cannot be parenthesised.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define TARN_DEFINE_EXCEPTION(Name, code)                                     \
  Name::Name(const Pt::ExWhere& where) : ExBase(errorMessage(code), where) {} \
  Name::Name(const Pt::ExWhere& where, const Pt::Exception& nested)           \
      : ExBase(errorMessage(code), where, nested) {}                          \
  Name::Name(const Name& other) = default;                                    \
  Name& Name::operator=(const Name& other) = default;                         \
  Name::~Name() = default;                                                    \
  Pt::Exception* Name::cloneMe() const {                                      \
    return new Name(*this);                                                   \
  }                                                                           \
  Pt::Exception* Name::clone() const {                                        \
    return cloneMe();                                                         \
  }

TARN_DEFINE_EXCEPTION(ExUnsupportedFileVersion, kMsgUnsupportedFileVersion)
TARN_DEFINE_EXCEPTION(ExCachableNotVerified, kMsgCachableNotVerified)
TARN_DEFINE_EXCEPTION(ExFactoryClassNotFound, kMsgFactoryClassNotFound)
TARN_DEFINE_EXCEPTION(ExFileReadEntry, kMsgFileReadEntry)
TARN_DEFINE_EXCEPTION(ExFileWriteEntry, kMsgFileWriteEntry)
TARN_DEFINE_EXCEPTION(ExFileWriteExtent, kMsgFileWriteExtent)
TARN_DEFINE_EXCEPTION(ExFileWriteEntryHeader, kMsgFileWriteEntryHeader)
TARN_DEFINE_EXCEPTION(ExFileWriteExtentHeader, kMsgFileWriteExtentHeader)
TARN_DEFINE_EXCEPTION(ExInvalidTypeName, kMsgInvalidTypeName)

#undef TARN_DEFINE_EXCEPTION
// NOLINTEND(bugprone-macro-parentheses)

}  // namespace Tarn
