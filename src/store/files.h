// The filesystem boundary. Every file the tool reads, lists, writes, copies or
// removes goes through these functions, and they take logical paths: paths as the
// phone sees them. physicalPath() is the one place that maps them to this machine.
//
// Failures other than a missing file are logged here, once, at module 60 level 4,
// with the logical path and the system error; callers only look at the result.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace store::fs {

// The directory named by CFGUPGRADE_ROOT stands for "/" (unset: the real "/").
// Nullopt for a path that is not absolute or that contains a ".." component.
std::optional<std::string> physicalPath(std::string_view logical);

// The one spelling of a logical path that the store keys its knowledge by: repeated
// slashes and "." components, which name the same file, are taken out.
std::string canonicalPath(std::string_view logical);

// Whole content of a regular file. False when it is missing or cannot be read.
bool readFile(const std::string& logical, std::string& bytes);

// True when the path names anything: a file, a directory, a link to one of them.
bool pathExists(const std::string& logical);

// The one writer. Replaces the file with `bytes` so that a cut of power at any
// moment leaves either the old or the new content, never a mix and never nothing.
// Writes nothing when the file already holds exactly these bytes.
bool writeFileAtomically(const std::string& logical, std::string_view bytes);

// Copies src over dst through the atomic writer; false when the copy did not land.
bool copyFileAtomically(const std::string& dst, const std::string& src);

// Removes a file and makes the removal durable.
bool removeFile(const std::string& logical);

// Names of a directory's entries, except "." and "..", in the order the system returns them.
bool listDirectory(const std::string& logical, std::vector<std::string>& names);

}  // namespace store::fs
