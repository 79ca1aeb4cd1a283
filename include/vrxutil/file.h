// Files, folders and paths.
//
// Paths are wide text; they reach the system in the encoding of the C locale
// (ACharString), where a character that it cannot express becomes "?", and end
// at their first NUL. "/" is the only separator. Nothing is normalised: "." and
// "..", repeated separators and backslashes are ordinary characters.
// Errors: only std::bad_alloc is thrown. A failed operation returns false and
// logs the system's text for errno, with the error trace, under the group named
// at the class. Each operation opens a detail scope that shows the C call and
// its arguments.
// Threads: functions and static operations may run anywhere; an object belongs
// to one thread at a time.

#pragma once

#include <vrxutil/binary.h>
#include <vrxutil/export.h>
#include <vrxutil/text.h>

#include <cstdio>

#include <glob.h>

namespace vrxutil::detail {
class TreeDeletion;
}

/// Splits at the last "/", which belongs to neither part, and returns true.
/// Without one, `folder` is the whole path, `name` is empty, and the result is
/// false. Either output may be null; either may own the characters of `path`.
VRXUTIL_EXPORT bool splitPath(wchar_t const* path, AString* folder, AString* name);

/// Joins two parts with one "/" between them, dropping at most one character:
/// the "/" that begins `name` where `folder` ends in one. An empty or null part
/// gives the other one alone. The parts may own the characters of `result`.
/// Returns the characters of `result`.
VRXUTIL_EXPORT wchar_t const* joinPath(AString* result, wchar_t const* folder, wchar_t const* name);

/// A path joined from folder and name by joinPath().
class VRXUTIL_EXPORT APath : public AString {
public:
  /// `folder` and `name`, joined.
  APath(AString const& folder, AString const& name);
};

/// A file behind one buffered stream of the C library (POSIX fopen).
///
/// Errors are logged under "File". A failed open leaves the file closed, with
/// the new path; after a failed read or write it stays open. An operation on a
/// file that is not open fails with EBADF.
///
/// What is written may reach the system as late as close(), which logs its
/// failure; the static write() operations return it.
class VRXUTIL_EXPORT AFile {
public:
  /// A file that is not open.
  AFile();

  /// close(). An exception from the logger ends here.
  ~AFile();
  AFile(AFile const&) = delete;
  AFile& operator=(AFile const&) = delete;

  /// Whether a file is open.
  bool isOpen() const { return handle != nullptr; }

  /// Closes the file, if it is open, and forgets its path. Output that cannot
  /// be flushed is logged.
  void close();

  /// Closes any open file and opens `path` for reading. A missing file (ENOENT)
  /// is logged only if `reportMissing`. A folder opens; reading it fails.
  bool open(bool reportMissing, AString const& path);

  /// Closes any open file and opens `path` for writing: at its end if `append`,
  /// else cut to nothing. A missing file is made.
  bool openWrite(AString const& path, bool append);

  /// openWrite() without appending.
  bool openAlways(AString const& path);

  /// Reads up to the next line feed or the end of the file; `line` gets each
  /// byte but the line feed as convertOne() converts it alone: the characters
  /// of a multi-byte encoding do not read back as writeLine() wrote them, and
  /// each of their bytes is logged and becomes a 0. A carriage return is kept.
  /// False at the end of the file when nothing was left, which is not logged,
  /// and after a read error, which is. Linear in time, one scope a line.
  bool readLine(AString& line);

  /// Writes `line` in the encoding of the C locale, and a line feed.
  bool writeLine(AString const& line);

  /// Moves to offset 0 from `origin`: SEEK_SET (0), the beginning, or SEEK_END
  /// (2), the end.
  bool seek(int origin);

  /// seek(SEEK_SET).
  bool seekBegin();

  /// seek(SEEK_END).
  bool seekEnd();

  /// Reads the whole file, as bytes, wherever the file stands. It must have a
  /// size: a FIFO fails, and a file that the kernel makes up reads as empty. A
  /// size that memory has no room for is logged under "Buffer".
  bool read(ABuffer& contents);

  /// Writes `count` bytes. A negative count, and null with a count, are EINVAL.
  ///@{
  bool write(unsigned char const* bytes, int count);
  bool write(ABuffer const& contents);
  ///@}

  /// Opens `path` with open(), reads the whole of it and closes it.
  static bool read(bool reportMissing, AString const& path, ABuffer& contents);

  /// Opens `path` with openAlways(), writes the bytes and closes it: false also
  /// when they cannot be flushed. Not atomic: the old contents go first.
  ///@{
  static bool write(AString const& path, unsigned char const* bytes, int count);
  static bool write(AString const& path, ABuffer const& contents);
  ///@}

private:
  bool openAs(char const* mode, int flags, AString const& newPath, bool reportMissing);
  bool closeStream();
  bool writeBytes(unsigned char const* bytes, unsigned long count);

  std::FILE* handle = nullptr;
  AString path;
};

/// Operations on files and folders, and the agent's well-known folders.
///
/// Errors are logged under "Filer", those of the size functions under "filer".
class VRXUTIL_EXPORT AFiler {
public:
  /// Kinds of access to ask for; changeAccess is tested as writeAccess is.
  enum AFileAccess : int {
    readAccess = 1,
    writeAccess = 2,
    executeAccess = 4,
    changeAccess = 8,
  };

  AFiler() = delete;

  /// The framework's data folder, as the configuration service
  /// (vrxcomn/configuration.h) first gave it; an empty answer is asked for again
  /// the next time. The characters stay valid.
  static wchar_t const* getOxaDataPath();

  /// The updater's data folder, likewise.
  static wchar_t const* getUpdaterDataPath();

  /// "etc" in the framework's data folder.
  static wchar_t const* getAlternateDataPath();

  /// A name in /var/tmp/ that no file has now (POSIX tempnam, which lets the
  /// environment variable TMPDIR name another folder). The file is not made, so
  /// that another process may be first: where others can write to the folder,
  /// open it with O_EXCL.
  static bool getTempFilePath(AString& path);

  /// Removes a file; a missing one is a success.
  static bool deleteFile(AString const& path);

  /// Makes one folder with mode 0700 less the umask, not those above it. Whatever
  /// exists at `path` already is a success.
  static bool createDirectory(AString const& path);

  /// Copies contents and mode by zulCopyFile (zulral/zulral.h), over `target`
  /// where it exists. A failure is logged as "Failed".
  static bool copyFile(AString const& source, AString const& target);

  /// Renames nothing: logs the internal error "Test " and returns false.
  static bool renameFile(AString const& from, AString const& to);

  /// Removes an empty folder; one that is missing or no folder is a success.
  static bool deleteFolder(AString const& path);

  /// The same; a folder that is not empty stays, and is a success too.
  static bool deleteEmptyFolder(AString const& path);

  /// Removes a folder and everything in it, but for entries whose names begin
  /// with ".": those stay, and so do the folders that hold them, each with an
  /// error in the log. Goes on after a failure, and returns false in the end.
  ///
  /// A symbolic link is removed, never followed, whether in the tree or `path`
  /// itself, with or without a final "/". A path of fewer than 4 characters is
  /// refused without a record; one that the C locale cannot express is EILSEQ.
  /// Any number of entries and levels, up to PATH_MAX, is fine; what lies beyond
  /// is ENAMETOOLONG.
  ///
  /// Others may change the tree meanwhile: nothing outside it is removed. Where a
  /// folder is moved to another one while it is emptied, the work ends there, with
  /// an error (ESTALE). Only the folders above `path` must be safe from changes.
  static bool deleteFolders(AString const& path);

  /// Asks whether this process, with its real user id, has `access` to `path`
  /// (POSIX access). True when there is an answer: no right, or a file system
  /// mounted for reading only, is "exists, not accessible"; a missing file or a
  /// file in a folder's place is neither. Otherwise false, with the outputs left
  /// as they are. An unknown `access` is an internal error.
  ///@{
  static bool getFileAccessibility(AString const& path, AFileAccess access, bool& exists,
                                   bool& accessible);
  static bool getFileAccessibility(AString const& path, AFileAccess access, bool& exists);
  ///@}

  /// The size in bytes, cut to a signed 32-bit value: of a file of 2 GiB and
  /// more, what its low 32 bits say. A failure leaves `size` as it is.
  static bool getExistingFileSize(AString const& path, long& size);

  /// The same; a missing file is not logged.
  static bool tryGetFileSize(AString const& path, long& size);
};

/// Lists the entries of a folder that match a shell pattern (POSIX glob).
///
/// Errors are logged under "FileInx".
class VRXUTIL_EXPORT AFileIndex {
public:
  /// An index with nothing open.
  AFileIndex();

  /// open(), whose failure shows in moveNext().
  AFileIndex(bool reportNoMatch, wchar_t const* folder, wchar_t const* pattern);

  /// close().
  ~AFileIndex();
  AFileIndex(AFileIndex const&) = delete;
  AFileIndex& operator=(AFileIndex const&) = delete;

  /// Finds what matches `folder` and `pattern`, joined by joinPath(). The folder
  /// is part of the pattern: "*", "?", "[" and "\" in it have their meaning
  /// there too, and must be quoted by "\" where a folder is really named so. A
  /// leading "." in a name is matched by a "." only. The order is the file
  /// system's. What matches nothing, as in an empty or missing folder, or one
  /// that cannot be read, is false, and logged only if `reportNoMatch`.
  bool open(bool reportNoMatch, wchar_t const* folder, wchar_t const* pattern);

  /// The next entry; false when there is none. Every output may be null.
  /// `path` gets the folder and the name, `name` the last component as splitPath()
  /// has it (empty where the path has no "/"), `isFolder` whether it is a folder or
  /// a link to one, `size` always 0.
  bool moveNext(AString* path, bool* isFolder, AString* name, unsigned long* size);

  /// Releases the list.
  void close();

private:
  friend class vrxutil::detail::TreeDeletion;

  /// What open() finds with the pattern "*" in this very folder, whatever its
  /// name; `folder` is what the C locale can express.
  bool openFolder(AString const& folder);
  bool find(bool reportNoMatch, char const* pattern);

  AString spare;  // unused; keeps the documented layout
  glob_t matches;
  char** cursor;
  int held;
};
