// The plug-in reads (and after a success deletes) its upgrade file at a path compiled into it, so
// swarm runs side by side would see each other's files. A run first makes that file its own.
//
// Preferred: a private user and mount namespace with an empty tmpfs over the file's directory,
// which the run alone sees; the rest of the file system stays shared. The kernel grants it only
// to a single-threaded process (a thread sanitizer's runtime thread is enough to refuse it) and
// only where user namespaces are allowed. Otherwise: an exclusive lock on a file beside the path,
// held to the end of the process, so such runs take turns instead of interfering.
#pragma once

#include <string>

namespace obdswarm {

enum class FileIsolation { Namespace, Lock, Failed };

// Call at the start of main, before any thread is started. The directory is created when
// missing. `note` says why the namespace was not had (for Lock), or why nothing was (Failed).
// The lock, when taken, is held until the process ends.
FileIsolation IsolateUpgradeFile(const std::string& path, std::string& note);

// Only the namespace, no fallback: false with `note` when the kernel refuses it.
bool EnterPrivateDir(const std::string& dir, std::string& note);
// Blocks until this process holds the exclusive lock beside `path`; false with `note`.
bool LockBeside(const std::string& path, std::string& note);

}  // namespace obdswarm
