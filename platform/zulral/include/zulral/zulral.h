// The runtime layer: dynamic libraries, copying files, profile strings (single values
// of INI files), and the host's model where the host has no sysctlbyname().
//
//   ; a comment           where a line begins so, after blanks
//   [section]             the name ends at the first "]"
//   key = value           the key ends at the first "="
//
// Profile files are UTF-8, with LF or CR LF as line end and at most 256 MiB long; a
// byte-order mark at the start is kept. Only the first section of a name counts,
// and in it the first key of a name. Names are compared without regard to case
// (towupper); the blanks around them, in the file and in arguments, do not count. A
// line without "=" or with nothing before it, and whatever stands before the first
// section, is no pair. A name or value in the file ends at its first NUL.
//
// Errors: nothing is logged. zulCopyFile() and ZuDB_WritePrivateProfileStringW()
// return 0 on failure, with errno set. Wide file names reach the system in the
// encoding of the C locale; one that it cannot express is EILSEQ. Only
// std::bad_alloc is thrown.
// Threads: all functions may run anywhere, on the same file too.

#pragma once

#include <zulral/export.h>

#include <cstddef>

#ifdef __APPLE__
#include <sys/sysctl.h>
#endif

/// Loads a dynamic library (POSIX dlopen, with RTLD_NOW and RTLD_LOCAL); returns its
/// handle, or null with `*error` (unless `error` is null) set to a text that is valid
/// until the thread's next call of this kind.
///
/// A name without a slash is looked for where the host keeps libraries. Where ".so" is
/// the host's ending, a name that ends in ".dylib" and does not exist (without a slash:
/// that cannot be loaded) is tried once more with that; if this fails too, the text is
/// about the ".so". Where the name has a slash, what is no regular file is refused, and
/// so is an ELF file that ends before one of its segments does.
ZULRAL_EXPORT void* zulLoadLibrary(char const* name, char const** error);

/// The address of a symbol of `library`; null with `*error` set, as above, when it has
/// none, or its address is null. A null `library` has no symbols.
ZULRAL_EXPORT void* zulGetProcAddress(void* library, char const* symbol, char const** error);

/// Gives a library back, which goes when nobody else has it; non-zero on success.
/// `library` is null, a failure, or comes from zulLoadLibrary() and was not given back
/// yet.
ZULRAL_EXPORT int zulFreeLibrary(void* library);

/// Copies the contents and the permission bits (not the set-id bits) of `source`, a
/// regular file, to `target`; returns non-zero on success.
///
/// The copy is made in a neighbour of `target`, flushed to disk and renamed over
/// it: after a failure or a crash there is the old target or the new one. A
/// target that exists keeps its owner where that is allowed; if it is a symbolic
/// link, what it leads to is replaced; if it is no regular file, it is written in
/// place. With `refuseReplacing` other than 0 a target that exists, a link that
/// leads nowhere included, is EEXIST. A folder is EISDIR on either side, a source
/// that is otherwise no regular file EINVAL, and so is a null argument.
ZULRAL_EXPORT int zulCopyFile(char const* source, char const* target, int refuseReplacing);

/// Copies the value of `key` in the section `section` to `buffer`, or `defaultText`
/// (null is "") where there is none; returns the characters copied, without the
/// terminator.
///
/// Blanks around the value go, and then one pair of enclosing quotation marks,
/// double or single. `size` counts characters with the terminator: a longer value
/// is cut to size - 1, and with 0, or a null `buffer`, nothing is written and the
/// result is 0. Bytes that are no UTF-8 read as U+FFFD each. A file that cannot be
/// read, or is no regular file, has no values. It is read as far as the value; a
/// line of more than 64 MiB on the way is a file that cannot be read.
///
/// With a null `key` the keys of the section, with a null `section` the names of the
/// sections are copied, in the order of the file and repeated as they are there,
/// each followed by a NUL and the last by two; the result counts all but the last
/// NUL. A list that does not fit is cut and ends in two NULs as well; the result is
/// size - 2. An empty one is two NULs, and 0; `defaultText` does not count.
ZULRAL_EXPORT unsigned long ZuDB_GetPrivateProfileStringW(wchar_t const* section,
                                                          wchar_t const* key,
                                                          wchar_t const* defaultText,
                                                          wchar_t* buffer, unsigned long size,
                                                          wchar_t const* fileName);

/// Stores a value; returns non-zero on success.
///
/// With a null `value` the key goes, and with a null `key` the section up to the next
/// one, repeated ones too, so that they read as missing afterwards; what is missing
/// already is a success. All other lines stay byte for byte, and of a line whose
/// value changes all but the value. A new key becomes the line after the last one
/// of its section that is not blank, a new section the end of the file; they get
/// the first line's end, LF in a file without one. Where nothing would change, the
/// file is not touched. The value is stored as it stands, without quotation marks:
/// one that begins or ends with a blank, or is quoted, reads back without that.
///
/// A file that does not exist is made, its folder is not. The new contents are
/// written to a neighbour, flushed to disk and renamed over the old file, whose mode
/// and, where allowed, owner they get: after a failure or a crash there is the old
/// file or the new one, and readers see no other. A symbolic link is followed. The
/// folder must be writable.
///
/// Writers of one file, in this process and in others, wait for each other: they
/// hold an exclusive flock(2) on it, up to ten seconds, then it is ETIMEDOUT.
///
/// EINVAL: null or empty `fileName`, null `section`; a line end in section, key or
/// value; "]" in the section; "=" in the key; a key that is blank or begins with
/// ";" or "["; a file that is no regular file (EISDIR for a folder). EILSEQ: a
/// character that has no UTF-8 form. EFBIG: a file of more than 256 MiB, before or
/// afterwards, or a new line of more than 64 MiB. EACCES: a file or folder that may
/// not be written; EPERM: another's file in a sticky folder. Otherwise as open(2), write(2) and
/// rename(2) say.
ZULRAL_EXPORT int ZuDB_WritePrivateProfileStringW(wchar_t const* section, wchar_t const* key,
                                                  wchar_t const* value, wchar_t const* fileName);

#ifndef __APPLE__

extern "C" {

/// Answers "hw.model", as the function of this name on BSD and macOS does: the product
/// name in the firmware's tables, followed by " (notebook)" where the chassis is that
/// of a portable machine. Copies it, with its NUL, to `value` of `*size` bytes and sets
/// `*size`; returns 0. A null `value` asks for the size.
///
/// -1 with errno: ENOENT for another name, or without such tables (or what open(2) and
/// read(2) say of them); EFBIG for an entry of more than 4096 bytes; EPERM with a new
/// value; EFAULT for a `value` without `size`; ENOMEM where `value` is too small: it
/// gets as much as it has room for, without a NUL.
ZULRAL_EXPORT int sysctlbyname(char const* name, void* value, std::size_t* size,
                               void const* newValue, std::size_t newSize);
}

/// Has the tables read from another folder, with files `product_name` and
/// `chassis_type` as in /sys/class/dmi/id, which null brings back. The characters must
/// stay valid. Returns the folder before, null at first.
ZULRAL_EXPORT char const* zulSetFirmwareFolder(char const* folder);

#endif
