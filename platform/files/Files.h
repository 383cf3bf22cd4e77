#pragma once

#include <cstddef>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

/// Reading and replacing whole files (POSIX).
namespace tamsel::Files {

/// Why a file cannot be read or written: one sentence that names it.
class FileError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The most bytes that `read` takes in when nothing else is said, so that a device without an end
/// cannot fill the memory.
inline constexpr std::size_t maxReadBytes = std::size_t{1} << 30;

/// The name that stands for standard input.
inline constexpr std::string_view standardInput = "-";

/// What the names of files begin with that `replace` has not come to rename yet.
inline constexpr std::string_view temporaryPrefix = ".tamsel-";

/// What a file that was written survives besides the end of the program.
enum class Durability {
  /// Nothing: the system writes it to the disk when it comes to that.
  untilWritten,
  /// A crash of the system as well: it is on the disk before `replace` returns.
  onDisk,
};

/// The whole file, or all of standard input for "-". Throws FileError.
std::string read(const std::string& path);

/// The same of a regular file; never waits for anything else, such as a pipe that nobody writes to.
/// Throws FileError, also when it is longer than `maxLength` bytes.
std::string readRegular(const std::string& path, std::size_t maxLength = maxReadBytes);

/// Replaces the file, or creates it, in one step: whoever reads it sees the old bytes or the new
/// ones, and a failure leaves the old file and nothing else. So does a process that is killed,
/// unless that happens in the moment between naming the new file and renaming it. Links are
/// followed; what is no regular file (a terminal, a pipe) is written to directly. Throws FileError.
void replace(const std::string& path, std::string_view bytes,
             Durability durability = Durability::untilWritten);

/// Replaces or creates a file that is the user's alone (0600), in one step. Links are followed;
/// anything that is no file gives way, but a folder. Throws FileError.
void replacePrivate(const std::string& path, std::string_view bytes, Durability durability);

/// Makes a folder that is the user's alone (0700), and those above it that are missing; one that is
/// there becomes so. Returns what went wrong, in the system's words; empty if nothing did.
std::string makePrivateFolder(const std::string& path);

/// Where a session has no folder for what lasts as long as it does (XDG_RUNTIME_DIR), makes one in
/// memory for this process and those that it starts. Without one WebKit uses the disk, and ends the
/// program when that is full. To be called before there are threads.
void ensureRuntimeFolder();

/// The path of something that belongs to this program: beside it, as in the folder that it was
/// built in, or else in the folder of an installation, which is given as seen from the program's
/// own.
std::string besideProgram(const std::string& name, const std::string& installedFolder);

/// Takes bytes for a file. Throws FileError.
using Sink = std::function<void(std::string_view)>;

/// The same with the bytes that `produce` hands to the sink it is given. Where the file system
/// makes a second start necessary, `produce` is called again.
void replace(const std::string& path, const std::function<void(const Sink&)>& produce,
             Durability durability = Durability::untilWritten);

/// Writes to an open file. `name` is what an error calls it. Throws FileError.
void writeAll(int descriptor, std::string_view bytes, std::string_view name);

}  // namespace tamsel::Files
