// The exception family of the library.
//
// Every condition that the library itself detects is one class derived from
// ExBase, itself a Pt::Exception (and so a std::exception). Each carries a
// fixed English message chosen by the class, the source location at which it
// was raised and, optionally, a copy of the exception that caused it (usually
// a Pt::ExSystem from a failed file operation). Failures of the operating
// system reach the application as Pt::ExSystem, not as members of the family.
//
// Every class keeps its dynamic class through copies made with clone(), so a
// posted exception (Pt::Exception::Post) can still be caught or tested by its
// class. The classes hold no data beyond Pt::Exception.
//
// Thread-safety: an exception object belongs to one thread at a time.
#pragma once

#include "pt/Exception.h"
#include "tarn/Export.h"

namespace Tarn {

class TARN_EXPORT ExBase : public Pt::Exception {
 public:
  ExBase(const ExBase& other);
  ExBase& operator=(const ExBase& other);
  ~ExBase() override;

  Pt::Exception* clone() const override;

 protected:
  // `message` need only live until the constructor returns.
  ExBase(const wchar_t* message, const Pt::ExWhere& where);
  ExBase(const wchar_t* message, const Pt::ExWhere& where, const Pt::Exception& nested);
};

// The cache file's version or record layout is not one this library reads.
class TARN_EXPORT ExUnsupportedFileVersion : public ExBase {
 public:
  explicit ExUnsupportedFileVersion(const Pt::ExWhere& where);
  ExUnsupportedFileVersion(const Pt::ExWhere& where, const Pt::Exception& nested);
  ExUnsupportedFileVersion(const ExUnsupportedFileVersion& other);
  ExUnsupportedFileVersion& operator=(const ExUnsupportedFileVersion& other);
  ~ExUnsupportedFileVersion() override;

  Pt::Exception* clone() const override;

 protected:
  // A heap copy of this object; the caller owns it.
  Pt::Exception* cloneMe() const;
};

// An object's verify() was false, so the cache refused it.
class TARN_EXPORT ExCachableNotVerified : public ExBase {
 public:
  explicit ExCachableNotVerified(const Pt::ExWhere& where);
  ExCachableNotVerified(const Pt::ExWhere& where, const Pt::Exception& nested);
  ExCachableNotVerified(const ExCachableNotVerified& other);
  ExCachableNotVerified& operator=(const ExCachableNotVerified& other);
  ~ExCachableNotVerified() override;

  Pt::Exception* clone() const override;

 protected:
  Pt::Exception* cloneMe() const;
};

// No registered factory serves the type asked for (or the factories do not
// match the types that the cache file records).
class TARN_EXPORT ExFactoryClassNotFound : public ExBase {
 public:
  explicit ExFactoryClassNotFound(const Pt::ExWhere& where);
  ExFactoryClassNotFound(const Pt::ExWhere& where, const Pt::Exception& nested);
  ExFactoryClassNotFound(const ExFactoryClassNotFound& other);
  ExFactoryClassNotFound& operator=(const ExFactoryClassNotFound& other);
  ~ExFactoryClassNotFound() override;

  Pt::Exception* clone() const override;

 protected:
  Pt::Exception* cloneMe() const;
};

// Reading an entry, or rebuilding it from its bytes, failed. Also reported
// when clearing an erased entry's header in the file fails.
class TARN_EXPORT ExFileReadEntry : public ExBase {
 public:
  explicit ExFileReadEntry(const Pt::ExWhere& where);
  ExFileReadEntry(const Pt::ExWhere& where, const Pt::Exception& nested);
  ExFileReadEntry(const ExFileReadEntry& other);
  ExFileReadEntry& operator=(const ExFileReadEntry& other);
  ~ExFileReadEntry() override;

  Pt::Exception* clone() const override;

 protected:
  Pt::Exception* cloneMe() const;
};

// Writing an entry's data to the cache file failed.
class TARN_EXPORT ExFileWriteEntry : public ExBase {
 public:
  explicit ExFileWriteEntry(const Pt::ExWhere& where);
  ExFileWriteEntry(const Pt::ExWhere& where, const Pt::Exception& nested);
  ExFileWriteEntry(const ExFileWriteEntry& other);
  ExFileWriteEntry& operator=(const ExFileWriteEntry& other);
  ~ExFileWriteEntry() override;

  Pt::Exception* clone() const override;

 protected:
  Pt::Exception* cloneMe() const;
};

// Appending a new extent of entry slots to the cache file failed.
class TARN_EXPORT ExFileWriteExtent : public ExBase {
 public:
  explicit ExFileWriteExtent(const Pt::ExWhere& where);
  ExFileWriteExtent(const Pt::ExWhere& where, const Pt::Exception& nested);
  ExFileWriteExtent(const ExFileWriteExtent& other);
  ExFileWriteExtent& operator=(const ExFileWriteExtent& other);
  ~ExFileWriteExtent() override;

  Pt::Exception* clone() const override;

 protected:
  Pt::Exception* cloneMe() const;
};

// Writing an entry's header to the cache file failed.
class TARN_EXPORT ExFileWriteEntryHeader : public ExBase {
 public:
  explicit ExFileWriteEntryHeader(const Pt::ExWhere& where);
  ExFileWriteEntryHeader(const Pt::ExWhere& where, const Pt::Exception& nested);
  ExFileWriteEntryHeader(const ExFileWriteEntryHeader& other);
  ExFileWriteEntryHeader& operator=(const ExFileWriteEntryHeader& other);
  ~ExFileWriteEntryHeader() override;

  Pt::Exception* clone() const override;

 protected:
  Pt::Exception* cloneMe() const;
};

// Linking a new extent into the chain (rewriting the previous extent's
// header) failed.
class TARN_EXPORT ExFileWriteExtentHeader : public ExBase {
 public:
  explicit ExFileWriteExtentHeader(const Pt::ExWhere& where);
  ExFileWriteExtentHeader(const Pt::ExWhere& where, const Pt::Exception& nested);
  ExFileWriteExtentHeader(const ExFileWriteExtentHeader& other);
  ExFileWriteExtentHeader& operator=(const ExFileWriteExtentHeader& other);
  ~ExFileWriteExtentHeader() override;

  Pt::Exception* clone() const override;

 protected:
  Pt::Exception* cloneMe() const;
};

// A factory's type name is empty or longer than the 44 bytes that a cache
// file records; what() names the type and its length.
class TARN_EXPORT ExInvalidTypeName : public ExBase {
 public:
  explicit ExInvalidTypeName(const Pt::ExWhere& where);
  ExInvalidTypeName(const Pt::ExWhere& where, const Pt::Exception& nested);
  ExInvalidTypeName(const ExInvalidTypeName& other);
  ExInvalidTypeName& operator=(const ExInvalidTypeName& other);
  ~ExInvalidTypeName() override;

  Pt::Exception* clone() const override;

 protected:
  Pt::Exception* cloneMe() const;
};

}  // namespace Tarn
