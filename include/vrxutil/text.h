// Wide text: AString and its field descriptor AFormat, narrow copies for calls
// into the operating system, lists joined by separators, cutting text in parts,
// messages from catalogues.
//
// One wchar_t is one UTF-32 character; lengths count characters, not bytes.
// Narrow text is in the encoding of the C locale (POSIX mbstowcs, wcrtomb),
// which this library never sets. A null wchar_t const* or char const* stands
// for the text "(null)" wherever nothing else is said.
// Errors: only std::bad_alloc (and std::length_error beyond max_size()) is
// thrown. A conversion that fails is logged under "String" and leaves the text
// empty or shorter.
// Threads: const members may run at once; the others need the object alone.
//
// Calls that do not compile, or surprise, and what to write instead:
//
//   AString(5u), AString(5ll)        ambiguous: cast to unsigned long or long
//   text = 5, text = 0               ambiguous (the latter also with pointers): 5L, 0L
//   AString(nullptr)                 ambiguous: cast to the pointer that is meant
//   AString(static_cast<unsigned char>(65)) is "65", not "A": cast to char
//   AString(2.5)                     ambiguous: there is no form for fractions
//   a == b of two AString            compares addresses: wcscmp(a, b) == 0
//   AStringList << 5000000000L       narrows to int: append to an AString first

#pragma once

#include <vrxutil/export.h>

#include <string>

#include <nl_types.h>  // nl_catd
#include <wctype.h>    // towlower, towupper

/// One formatted field: a number or a text, with printf's width and precision.
///
/// It borrows text and flags, which must outlive it; it is built just before
/// use, as in `line << AFormat(255, L"x0", 4)`, which appends "00ff".
///
/// Flags, in any order:
///
///   '0'  fill with zeros             '-'  pad on the right
///   'u'  unsigned decimal            'x'  hexadecimal (the last of u, x wins)
///   '^'  upper case                  '_'  lower case ('^' wins)
///
/// Any other character is logged as an internal error under "String" and skipped.
///
/// A number that fits in 32 bits (signed for decimal, -2^31 to 2^32-1 for u and
/// x) prints as a 32-bit number does: -1 with "x" is "ffffffff". A wider one
/// prints in full. A number field is cut after 34 characters.
struct VRXUTIL_EXPORT AFormat {
  /// The decimal number `number`. `flags` must not be null; `width` -1 is none.
  AFormat(long number, wchar_t const* flags, int width) noexcept;

  /// The text `text`, cut to `precision` characters. Neither `text` nor `flags`
  /// may be null; -1 means no width, no precision.
  AFormat(wchar_t const* text, wchar_t const* flags, int width, int precision) noexcept;

  /// The one slot for what is formatted; `isNumber` says which.
  union Value {
    long number;          ///< where `isNumber` is 1
    wchar_t const* text;  ///< where `isNumber` is 0
  };

  /// Borrowed, where it is a text.
  Value value;
  /// Borrowed, and never null.
  wchar_t const* flags;
  /// Minimum field width in characters; -1 is none. Another negative width
  /// stands in the printf specification as it is: a number is padded on the right
  /// to its size, a text is not, for lack of room.
  int width;
  /// Digits at least, or characters at most, as for printf; -1 is none.
  int precision;
  /// 1 for a number, 0 for a text.
  int isNumber;
};

/// Text of 32-bit characters, copied by value.
///
/// Construction, operator= and operator<< of one argument type produce the same
/// text: the first starts from it, the second replaces the value, the third
/// appends. All return the object, so that calls chain:
/// `AString(L"line ") << 7L << L": " << narrowName`.
class VRXUTIL_EXPORT AString {
public:
  /// Orders by wcscmp, for ordered containers.
  struct VRXUTIL_EXPORT CaseSensitiveLess {
    /// Whether `a` sorts before `b`.
    bool operator()(AString const& a, AString const& b) const;
  };

  /// Orders by wcsicmp, for ordered containers.
  struct VRXUTIL_EXPORT CaseInsensitiveLess {
    /// Whether `a` sorts before `b`.
    bool operator()(AString const& a, AString const& b) const;
  };

  AString() = default;
  /// The characters as they are, those after a NUL included.
  AString(std::wstring const& text);
  /// The characters up to the NUL.
  AString(wchar_t const* text);
  /// Converts from the C locale. An invalid multibyte sequence logs one error
  /// and contributes nothing.
  AString(char const* text);
  /// The one character.
  AString(wchar_t character);
  /// The character that convertOne() gives for the byte; 0 after its error.
  AString(char byte);
  /// Signed decimal.
  AString(long number);
  /// Signed decimal.
  AString(int number);
  /// Unsigned decimal.
  AString(unsigned long number);
  /// Exactly eight lower-case hexadecimal digits, no "0x": the low 32 bits.
  AString(void* pointer);
  /// What the descriptor makes of its number or text.
  AString(AFormat const& field);

  /// Replaces the value with what the constructor of this argument gives.
  ///@{
  AString& operator=(wchar_t const* text);
  AString& operator=(char const* text);
  AString& operator=(wchar_t character);
  AString& operator=(char byte);
  AString& operator=(long number);
  AString& operator=(unsigned long number);
  AString& operator=(void* pointer);
  AString& operator=(AFormat const& field);
  ///@}

  /// Appends what the constructor of this argument gives.
  ///@{
  AString& operator<<(wchar_t const* text);
  AString& operator<<(char const* text);
  AString& operator<<(wchar_t character);
  AString& operator<<(char byte);
  AString& operator<<(long number);
  AString& operator<<(int number);
  AString& operator<<(unsigned long number);
  AString& operator<<(void* pointer);
  AString& operator<<(AFormat const& field);

  ///@}

  /// The characters and a terminating NUL. A NUL inside the value ends what a
  /// reader of this pointer sees. Valid until the value changes.
  operator wchar_t const*() const { return value_.c_str(); }

  /// Number of characters, those after a NUL in the value included.
  unsigned long size() const { return value_.size(); }

  /// atoi of the narrow text: leading blanks, a sign, decimal digits up to the
  /// first other character; 0 where there is no number. Nothing is reported.
  /// Beyond the range of int the value is that of the C library.
  int toInt() const;

  /// The value itself, for calls that want or change a string of C++.
  std::wstring& cpp_str() { return value_; }

  /// The value itself, to read.
  std::wstring const& const_cpp_str() const { return value_; }

  /// Replaces each occurrence of `find`, from left to right; what was inserted
  /// is not searched again. An empty `find` changes nothing. Linear in time.
  void findAndReplace(AString const& find, AString const& replacement);

  /// Cuts the text to `length` characters; a shorter text stays as it is.
  void shrinkTo(unsigned long length);

  /// A raw buffer for a platform call that writes text into caller's memory:
  /// room for `length` characters, among them a terminating NUL that the call
  /// must write, followed by a guard. checkAllocation() ends the use.
  /// A negative `length` logs an error under "String" and returns the unchanged
  /// buffer.
  wchar_t* allocate(int length);

  /// After allocate(): cuts the value at its first NUL and returns true. False,
  /// with an internal error under "String" and the value left as it is, when
  /// the guard was overwritten.
  bool checkAllocation();

  /// Replaces the value with the formatted field; returns its characters.
  wchar_t const* execute(AFormat const& field);

  /// Formats the value itself as a text field, for padding and case:
  /// `text.format(L"-", 20, -1)` pads on the right to 20 characters.
  wchar_t const* format(AString const& flags, int width, int precision);

  /// Converts `count` characters of the multibyte text `source` to
  /// `target + offset`, which must have room for them. Writes a terminator only
  /// where mbstowcs does. A negative `count` is 0. A failure is logged under
  /// "String" and leaves undefined what those characters are.
  static void convert(char const* source, wchar_t* target, int offset, int count);

private:
  std::wstring value_;
};

/// A short-lived narrow copy of a text, for a call into the operating system.
///
/// A character that the C locale cannot express becomes "?"; nothing is logged.
/// A text whose size, with the NUL, is no int is refused by std::length_error.
class VRXUTIL_EXPORT ACharString {
public:
  /// An empty text.
  ACharString();

  /// `text` in the encoding of the C locale. Null is an empty text here.
  ACharString(wchar_t const* text);

  /// A copy of `sizeInBytes` bytes, NUL bytes included, and a NUL; a negative size
  /// counts as 0. Where `bytes` is null the buffer is left uninitialised, not even
  /// terminated: it is the caller's to fill.
  ACharString(char const* bytes, int sizeInBytes);

  ~ACharString();
  ACharString(ACharString const&) = delete;
  ACharString& operator=(ACharString const&) = delete;

  /// The bytes, which are valid as long as the object.
  operator char const*() const { return buffer; }

  /// Number of bytes before the terminating NUL.
  int size() const { return length; }

private:
  char* buffer;
  int length;
};

/// Builds one text out of items with a separator between or after them.
class VRXUTIL_EXPORT AStringList {
public:
  /// With `afterEach` every item is followed by the separator, the last one
  /// too; without it, separators stand between items only.
  AStringList(wchar_t const* itemSeparator, bool afterEach);

  /// Empties the list; the next item is the first again.
  void clear();

  /// Appends one item, converted as AString's operator<< converts it.
  ///@{
  AStringList& operator<<(wchar_t const* item);
  AStringList& operator<<(char const* item);
  AStringList& operator<<(int item);
  AStringList& operator<<(void* item);
  AStringList& operator<<(AFormat const& item);

  ///@}

  /// The list so far; valid until it changes.
  operator wchar_t const*() const { return text; }

  /// What goes before and after the next item, which counts as added with this
  /// call. The texts are valid as long as the list.
  void setup(wchar_t const** before, wchar_t const** after);

private:
  template <class Item>
  AStringList& add(Item const& item);

  AString spare;  // unused; keeps the documented layout
  AString text;
  AString separator;
  bool separatorAfterEach;
  int atFirst;
};

/// Cuts a text into tokens at delimiter characters, from left to right.
class VRXUTIL_EXPORT AStringParser {
public:
  /// An empty text without delimiters.
  AStringParser();

  /// Copies `text`, up to its NUL. Keeps the pointer `defaultDelimiters`, whose
  /// characters must outlive the parser; null is an empty set.
  AStringParser(wchar_t const* text, wchar_t const* defaultDelimiters);
  AStringParser(AStringParser const&) = delete;
  AStringParser& operator=(AStringParser const&) = delete;

  /// Starts afresh, as the constructor of these arguments does.
  void startAt(wchar_t const* text, wchar_t const* defaultDelimiters);

  /// The characters up to the next delimiter, which is taken off the text and
  /// kept in `lastDelimiter`. Adjacent delimiters give empty tokens; at the end
  /// of the text the token is the rest and `lastDelimiter` 0. A null
  /// `tokenDelimiters` means the default set. The token is the caller's to
  /// change, in place, until startAt() or the parser's end.
  wchar_t* get(wchar_t const* tokenDelimiters);

  /// Moves past any run of the given characters; null is an empty set.
  void skip(wchar_t const* characters);

  /// Moves `count` characters on, at most to the end; 0 or less does nothing.
  void skip(int count);

  /// True when nothing is left to parse.
  bool atEnd();

  /// What is left to parse.
  wchar_t* getRemaining();

private:
  AString work;
  wchar_t* cursor;
  wchar_t const* delimiters;

public:
  /// The delimiter that ended the last token; 0 when that ran to the end.
  wchar_t lastDelimiter;
};

/// A message catalogue of the platform (POSIX catopen), open while the object lives.
///
/// Messages are those of set 1, in UTF-8. Every call opens a detail scope under
/// "RcFile". Threads: any number may call getString() at once while no other
/// member runs.
class VRXUTIL_EXPORT AResourceFile {
public:
  /// Not open.
  AResourceFile();

  /// close().
  ~AResourceFile();

  AResourceFile(AResourceFile const&) = delete;
  AResourceFile& operator=(AResourceFile const&) = delete;

  /// Opens a catalogue. A path with a slash is the file itself. A bare name is
  /// looked for along the environment variable NLSPATH, and in the system's
  /// folders, in the language of the locale's category LC_MESSAGES (POSIX XBD
  /// 8.2), which setlocale() must have set. False, with an error under "RcFile",
  /// when there is none, or under "Xml" when the path is no Unicode. A catalogue
  /// that is open stays so after a failure, and a success does not close it
  /// either: close() it first. The second argument has no meaning.
  ///
  /// A path to what is no whole catalogue is EINVAL. What a bare name leads to is not
  /// looked at first: the C library trusts what it finds along NLSPATH. The file is
  /// mapped into memory: replace it by renaming, never write into it.
  bool openExisting(wchar_t const* path, unsigned short unused);

  /// Closes the catalogue, if one is open.
  void close();

  /// Loads message `id` into `text` and returns its characters, which are valid as
  /// long as `text` is unchanged. A missing message, or any when nothing is open,
  /// is an error under "RcFile" and gives "<id>". So does one that is not UTF-8,
  /// whose error is under "Xml". A message whose text is "~`~`~`~`~`" counts as
  /// missing. `text` must not be null.
  wchar_t const* getString(int id, AString* text) const;

private:
  nl_catd catalogue;
};

/// A message with placeholders "%1" to "%9", filled by operator<< in this order:
///
///   ALocalizedString message(L"File %1 not found in %2");
///   message << name << folder;
///
/// A placeholder may stand anywhere, also before a lower one, and several times.
/// Any other "%" stays as it is, and nothing stands for a literal "%1". Text that
/// an argument brings in is looked through for the next placeholders, too.
///
/// Other types surprise: `<< 'x'` is the number 120, write L'x'; `<< 5L` is
/// ambiguous, cast to int; `<< text` of an AString ends at its first NUL.
class VRXUTIL_EXPORT ALocalizedString : public AString {
public:
  /// The catalogue of ALocalizedString(int); null until it is set. Not owned.
  static AResourceFile* DefaultResourceFile;

  /// An empty text.
  ALocalizedString() = default;

  /// The given text, for messages that are in no catalogue.
  ALocalizedString(wchar_t const* text);

  /// Message `id` of the default catalogue, as AResourceFile::getString() says.
  /// Without one: "Error:  Uninitialized resource file.", and nothing is logged.
  ALocalizedString(int id);

  /// The same of the catalogue `file`; null is treated as no default is.
  ALocalizedString(int id, AResourceFile* file);

  /// Starts afresh with message `id` of `file`.
  ALocalizedString& open(int id, AResourceFile const& file);

  /// Sets the default catalogue, which must outlive its use, or none by null.
  /// Call it before other threads use ALocalizedString(int): there is no lock.
  static void setDefaultResourceFile(AResourceFile* file);

  /// Puts the argument in the place of each next placeholder. A tenth argument
  /// has no placeholder and changes nothing. Numbers are decimal, pointers eight
  /// hexadecimal digits, narrow text is converted as AString does.
  ///@{
  ALocalizedString& operator<<(wchar_t const* argument);
  ALocalizedString& operator<<(char const* argument);
  ALocalizedString& operator<<(int argument);
  ALocalizedString& operator<<(void* argument);
  ALocalizedString& operator<<(wchar_t argument);
  ///@}

private:
  ALocalizedString& fill(AString const& argument);

  int nextArgument = 1;
};

/// Compares without regard to case, folded to upper case by towupper; negative,
/// 0 or positive as a sorts before, with or after b. Neither may be null.
VRXUTIL_EXPORT int wcsicmp(wchar_t const* a, wchar_t const* b);

/// Number of wide characters that `text` converts to, terminator not counted.
/// An invalid multibyte sequence is logged under "String" and gives 0.
VRXUTIL_EXPORT unsigned long conversionSpaceRequired(char const* text);

/// The wide character for one byte. A byte that is no character on its own,
/// NUL included, is logged under "String" and gives 0.
VRXUTIL_EXPORT wchar_t convertOne(char byte);

/// Number of bytes, terminator included, that convert() writes for `text`. Throws
/// std::length_error where that is no int.
VRXUTIL_EXPORT int conversionSpaceRequired(wchar_t const* text);

/// Writes `text` and a NUL to `target`, in the encoding of the C locale. A
/// character without an expression there becomes "?".
VRXUTIL_EXPORT void convert(wchar_t const* text, char* target);

/// `size` chars from array new; the caller owns them.
VRXUTIL_EXPORT char* checkNewChar(int size);

/// Splits `text` at the first character that is in `delimiters`, which belongs
/// to neither side. Without one, `left` is the whole text and `right` empty.
/// Either output may be null.
VRXUTIL_EXPORT void parseInTwo(wchar_t const* text, AString* left, wchar_t const* delimiters,
                               AString* right);

/// As parseInTwo, at the last such character. Without one the whole text goes
/// to `left` if `wholeToLeft`, else to `right`, and the other is empty.
VRXUTIL_EXPORT void parseInTwoFromRight(wchar_t const* text, AString* left,
                                        wchar_t const* delimiters, AString* right,
                                        bool wholeToLeft);
