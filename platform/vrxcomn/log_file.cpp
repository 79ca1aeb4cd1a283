#include "platform/vrxcomn/log_file.h"

#include "platform/common/file_io.h"

#include <spdlog/details/log_msg.h>
#include <spdlog/formatter.h>
#include <spdlog/sinks/rotating_file_sink.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vrxutil::detail {

namespace {

constexpr std::size_t kMaxFileSize = std::size_t{8} * 1024 * 1024;
constexpr std::size_t kOldFiles = 5;
constexpr unsigned kFolderMode = 0750;
constexpr mode_t kFileMode = 0640;

/// The line comes complete.
class LineFormatter final : public spdlog::formatter {
public:
  void format(spdlog::details::log_msg const& line, spdlog::memory_buf_t& out) override {
    out.append(line.payload.begin(), line.payload.end());
  }

  std::unique_ptr<spdlog::formatter> clone() const override {
    return std::make_unique<LineFormatter>();
  }
};

[[noreturn]] void fail(FileError const& error) { throw std::runtime_error(describe(error)); }

/// With errno, which is taken before anything else can change it.
[[noreturn]] void failWithErrno(char const* action, std::string const& path) {
  int const number = errno;
  fail({action, path, number});
}

void checkKind(struct stat const& status, std::string const& path) {
  if (S_ISREG(status.st_mode) || S_ISCHR(status.st_mode)) return;
  // A pipe would make the process wait for its reader.
  throw std::runtime_error("cannot open " + path + ": not a regular file");
}

/// A line that a crash or a full disk cut off is ended, so that the next record
/// begins on a line of its own.
void endLastLine(int fd, struct stat const& status, std::string const& path) {
  if (!S_ISREG(status.st_mode) || status.st_size == 0) return;
  char last = '\n';
  if (::pread(fd, &last, 1, status.st_size - 1) < 0) failWithErrno("read", path);
  if (last != '\n' && ::write(fd, "\n", 1) != 1) failWithErrno("write", path);
}

/// What must hold before the file is opened for good. The sink itself would try
/// five times with pauses, and could not say why it failed.
void prepare(std::string const& path) {
  std::string const folder = path.substr(0, path.rfind('/'));
  if (auto const error = makeFolders(folder, kFolderMode)) fail(*error);
  Descriptor const file(::open(
      path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, kFileMode));
  if (!file) failWithErrno("open", path);

  struct stat status {};

  if (::fstat(file.get(), &status) != 0) failWithErrno("examine", path);
  checkKind(status, path);
  endLastLine(file.get(), status, path);
}

void setUp(std::FILE* stream) {
  std::setvbuf(stream, nullptr, _IONBF, 0);  // one write(2) a line; needs no memory
  int const flags = ::fcntl(::fileno(stream), F_GETFD);
  ::fcntl(::fileno(stream), F_SETFD, flags | FD_CLOEXEC);  // cannot fail on an open file
}

/// Appends descriptors that take the numbers of standard input, output and error
/// as far as these are free: the file opened meanwhile does not become one of
/// them, and so the receiver of what the process prints.
void takeStandardDescriptors(std::vector<Descriptor>& taken) {
  for (;;) {
    Descriptor descriptor(::open("/dev/null", O_RDWR | O_CLOEXEC));
    if (!descriptor || descriptor.get() > STDERR_FILENO) return;
    taken.push_back(std::move(descriptor));
  }
}

}  // namespace

struct LogFile::Sink {
  explicit Sink(std::string const& path)
      // Without a lock of its own: its user has one.
      : file(path, kMaxFileSize, kOldFiles, /*rotate_on_open=*/false, handlers()) {
    file.set_formatter(std::make_unique<LineFormatter>());
  }

  /// Called for every opening, those of rotation too.
  spdlog::file_event_handlers handlers() {
    spdlog::file_event_handlers handlers;
    handlers.before_open = [this](std::string const& path) {
      prepare(path);
      takeStandardDescriptors(taken);
    };
    handlers.after_open = [this](std::string const& /*path*/, std::FILE* stream) {
      setUp(stream);
      taken.clear();
    };
    return handlers;
  }

  std::vector<Descriptor> taken;  // before `file`, whose constructor fills it
  spdlog::sinks::rotating_file_sink_st file;
};

LogFile::LogFile(std::string path) : path_(std::move(path)) {}

LogFile::~LogFile() = default;

std::optional<std::string> LogFile::open() {
  if (sink_ != nullptr) return std::nullopt;
  try {
    sink_ = std::make_unique<Sink>(path_);
    return std::nullopt;
  } catch (std::exception const& exception) {
    return exception.what();
  }
}

std::optional<std::string> LogFile::write(std::string_view line) {
  if (auto reason = open()) return reason;
  spdlog::details::log_msg const record({}, {}, {}, spdlog::level::info,
                                        {line.data(), line.size()});
  try {
    sink_->file.log(record);
    return std::nullopt;
  } catch (std::exception const& exception) {
    std::string reason = exception.what();
    // A sink whose rotation failed half-way has no file any more and would crash.
    sink_.reset();
    return reason;
  }
}

}  // namespace vrxutil::detail
