// Versions: four unsigned numbers (major, minor, revision, build) with a dotted
// text form such as "2.0.13.400".
//
// Version is the interface and VersionImpl its one implementation. Versions are
// counted objects (utils/object.h) handed out in CountedRef holders:
// Version::theVersion() is the library's own version, Version::create() makes one
// from four numbers, and a VersionImpl can be made from a text.
//
// Failures raise the result code 0x80000003 (kResultBadArgument) through
// raiseError (utils/result.h) and never throw: a text without any number leaves
// the numbers 0, a comparison with a missing or foreign version returns 0. When
// memory is exhausted, theVersion() and create() return an empty holder.
//
// Threads: the counts of versions change under a process-wide lock, and a version
// never changes after it is made, so one version (the library's own in particular)
// may be held, read and released by several threads at once.
#pragma once

#include "utils/export.h"
#include "utils/object.h"
#include "utils/string.h"

namespace Utils {

class ZO_API Version : public Object {
public:
    ~Version() override;

    // A copy of the text form (a string of its own, not shared with the version).
    virtual String asString() const = 0;
    virtual unsigned int major() const = 0;
    virtual unsigned int minor() const = 0;
    virtual unsigned int revision() const = 0;
    virtual unsigned int build() const = 0;
    // -1, 0 or 1 as this version orders before, with or after `other`, by the four
    // numbers in order, unsigned; the text takes no part.
    virtual int compare(Version const* other) const = 0;

    // The library's own version, "1.1.1.1507", made on the first call; every call
    // returns a new reference to the same object. Safe to call from several threads
    // at once. Its numbers are 1, 1, 1, 1: see VersionImpl(char const*).
    static CountedRef<Version> theVersion();
    // A new version from four numbers; its text is "major.minor.revision.build".
    static CountedRef<Version> create(unsigned int major, unsigned int minor, unsigned int revision,
                                      unsigned int build);

    // The reference count, changed under the process-wide version lock. These hide
    // Countable's plain operations for every holder that sees the object as a Version
    // (CountedRef<Version> and CountedRef<VersionImpl> included).
    void incRef();
    unsigned int decRef();
    unsigned int refCount() const;
};

class ZO_API VersionImpl : public Version {
public:
    // Keeps `text` as the text form and reads the numbers from it with
    // parseStringRep(). Deliberately, all four numbers come from the first dotted
    // component (kept: existing version texts are read this way): "5.6.7.8" gives
    // 5, 5, 5, 5 and "1.1.1.1507" gives 1, 1, 1, 1, while asString() returns the
    // text unchanged. A text without any number ("", null, "...") raises 0x80000003
    // and leaves 0, 0, 0, 0.
    explicit VersionImpl(char const* text);
    // The four numbers; the text is built from them ("2.0.13.400").
    VersionImpl(unsigned int major, unsigned int minor, unsigned int revision, unsigned int build);
    // 0, 0, 0, 0 with the text "0.0.0.0".
    VersionImpl();
    ~VersionImpl() override;

    String asString() const override;
    unsigned int major() const override;
    unsigned int minor() const override;
    unsigned int revision() const override;
    unsigned int build() const override;
    // Raises 0x80000003 and returns 0 when `other` is null or not a VersionImpl.
    int compare(Version const* other) const override;

    // The text form from the numbers: decimal, no leading zeros, dots between.
    void buildStringRep();
    // The numbers from the text form. Each of four rounds takes the first token of
    // the text between dots, always searching from position 0, and reads it as a
    // decimal int (atoi; a component beyond the int range reads as INT_MAX or
    // INT_MIN, as the 32-bit conversion did), stored unsigned. When the text has no
    // token, raises 0x80000003 and leaves all four 0.
    void parseStringRep();

    // The library's version once made by theVersion(); empty before, and released
    // when the library is unloaded. Use theVersion() rather than this.
    static CountedRef<Version> theVersion_;

private:
    String stringRep;
    unsigned int numbers[4];  // major, minor, revision, build, walked in this order
};

}  // namespace Utils
