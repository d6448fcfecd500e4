// The filesystem boundary. Every file the tool reads, lists, writes, copies or
// removes goes through these functions, and they take logical paths: paths as the
// phone sees them. store/paths.h says where each may lead; this file does the I/O.
//
// Failures other than a missing file are logged here, once, at module 60 level 4,
// with the logical path and the system error; callers only look at the result.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "store/paths.h"

namespace store::fs {

// What a file is read as; each kind has its own size limit (sizeLimit).
enum class FileKind { kIni, kXml, kCopy };

// 4 MiB for every kind (INI, XML, a file copied: account files, certificates, the
// password key): far above any real one (the largest, a rule file of 10,000 rules, is
// 1.5 MiB). What a file costs once parsed is bounded apart: see documents.cpp and
// xml_files.cpp.
size_t sizeLimit(FileKind kind);

// Whole content of a regular file: 0, ENOENT for a missing file (and for a version
// record that does not count, see paths.h), or why it cannot be read (logged). Opened
// without blocking: a FIFO, device or socket is a file that cannot be read.
int readFile(const std::string& logical, std::string& bytes, FileKind kind);

// True when the path names anything a read could find: a file, a directory, a link.
bool pathExists(const std::string& logical);

// True when the path may be written; a path outside the writable areas, or one whose
// link leads out of its area, is refused with one logged line.
bool mayWrite(const std::string& logical);

// The one writer. Replaces the file with `bytes` so that a cut of power at any
// moment leaves either the old or the new content, never a mix and never nothing.
// Writes nothing when the file already holds exactly these bytes. `written`, when
// given, gets the status of the file the name then holds (to know it again later), a
// zero mode when it holds none (a staged run that created the file).
bool writeFileAtomically(const std::string& logical, std::string_view bytes, struct stat* written = nullptr);

// Copies src over dst through the atomic writer; false when the copy did not land,
// also when both name one file.
bool copyFileAtomically(const std::string& dst, const std::string& src);

// Removes a file and makes the removal durable. A name that is a link is removed as a
// link (inside the writable areas, wherever it leads); its target stays.
bool removeFile(const std::string& logical);

// True when both paths lead to one file (same device and inode, links followed), or
// to one name where no file is yet (a dangling link and the name it leads to).
bool sameFile(const std::string& a, const std::string& b);

// Names of a directory's entries, except "." and "..", in the order the system returns them.
// A listing that fails is logged (unless the directory is missing) and gives the names
// read before it failed: each caller does right with what it gets, so there is no
// result to look at.
void listDirectory(const std::string& logical, std::vector<std::string>& names);

// As listDirectory, without the links and the entries of a type the system does not give:
// every name left is there, whatever a lookup of it would follow.
void listPlainEntries(const std::string& logical, std::vector<std::string>& names);

// read(2) and write(2) on a descriptor the caller holds, made again when a signal
// interrupted them before they moved a byte: -1 with errno for any other failure.
ssize_t readUninterrupted(int fd, void* buffer, size_t size);
ssize_t writeUninterrupted(int fd, const void* bytes, size_t size);

}  // namespace store::fs
