#include "host/terminal/history_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <thread>
#include <utility>

#include "host/terminal/input_text.h"

namespace zym {
namespace {

namespace fs = std::filesystem;
using kel::Status;

constexpr std::string_view kHeader = "_HiStOrY_V2_\n";
constexpr int kLockAttempts = 50;
constexpr std::chrono::milliseconds kLockPause{20};

class File {
 public:
  // flags: as of open; the descriptor is -1 on failure, and errno tells why.
  File(const fs::path& path, int flags) : fd(::open(path.c_str(), flags | O_CLOEXEC, 0600)) {}
  ~File() {
    if (fd >= 0) {
      ::close(fd);  // gives the lock back
    }
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  // False when somebody else keeps the lock. A chat waits for nobody who has stopped.
  bool lock() const {
    for (int i = 0; i < kLockAttempts; ++i) {
      if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
        return true;
      }
      if (errno != EWOULDBLOCK && errno != EINTR) {
        return false;
      }
      std::this_thread::sleep_for(kLockPause);
    }
    return false;
  }

  const int fd;
};

bool isRegular(int fd, struct stat& info) {
  return fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
}

// Whether path still names the open file: another chat may have replaced it.
bool isNamed(const fs::path& path, const struct stat& open) {
  struct stat named {};
  return stat(path.c_str(), &named) == 0 && named.st_dev == open.st_dev &&
         named.st_ino == open.st_ino;
}

bool writeAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t put = ::write(fd, text.data(), text.size());
    if (put < 0 && errno != EINTR) {
      return false;
    }
    text.remove_prefix(put < 0 ? 0 : static_cast<size_t>(put));
  }
  return true;
}

std::vector<std::string> linesOf(std::string_view text) {
  std::vector<std::string> lines;
  if (text.starts_with(kHeader)) {
    text.remove_prefix(kHeader.size());
  }
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    if (end > 0) {
      lines.push_back(decodeHistoryLine(text.substr(0, end)));
    }
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return lines;
}

std::string textOf(const std::vector<std::string>& messages) {
  std::string text(kHeader);
  for (const std::string& message : messages) {
    text += encodeHistoryLine(message) + "\n";
  }
  return text;
}

// Puts a file with these messages in the place of the one that path names. Where that cannot be
// done the file stays as it is.
void replaceWith(const std::vector<std::string>& messages, const fs::path& path) {
  std::error_code error;
  const fs::path target = fs::canonical(path, error);  // a link stays a link
  if (error) {
    return;
  }
  const fs::path beside = target.string() + "." + std::to_string(getpid());
  bool written = false;
  {
    const File file(beside, O_WRONLY | O_CREAT | O_EXCL);
    written = file.fd >= 0 && writeAll(file.fd, textOf(messages));
  }
  if (!written || std::rename(beside.c_str(), target.c_str()) != 0) {
    ::unlink(beside.c_str());
  }
}

bool isOctal(std::string_view digits) {
  return digits.size() == 3 && digits[0] <= '3' &&
         digits.find_first_not_of("01234567") == std::string_view::npos;
}

// Decodes "^I", "-C" and what else may follow "\" or "\M". Length 0 when it is no such escape.
size_t decodeMeta(std::string_view text, char& byte) {
  if (text.size() >= 2 && text[0] == '^') {
    byte = text[1] == '?' ? '\x7F' : static_cast<char>(text[1] & 0x1F);
    return 2;
  }
  if (text.size() >= 3 && text[0] == 'M' && (text[1] == '-' || text[1] == '^')) {
    byte = text[2];
    if (text[1] == '^') {
      decodeMeta(text.substr(1), byte);
    }
    byte = static_cast<char>(static_cast<unsigned char>(byte) | 0x80U);
    return 3;
  }
  return 0;
}

// Decodes what follows a backslash.
size_t decodeEscape(std::string_view text, char& byte) {
  if (isOctal(text.substr(0, 3))) {
    byte = static_cast<char>((text[0] - '0') * 64 + (text[1] - '0') * 8 + (text[2] - '0'));
    return 3;
  }
  if (text.starts_with('\\')) {
    byte = '\\';
    return 1;
  }
  return decodeMeta(text, byte);
}

Status failure(const fs::path& path) {
  return Status::invalid(path.string() + ": " + std::strerror(errno));
}

}  // namespace

std::string encodeHistoryLine(std::string_view message) {
  std::string line;
  for (const char byte : message) {
    const auto value = static_cast<unsigned char>(byte);
    if (value < 0x20 || value == 0x7F || byte == '\\') {
      line += '\\';
      line += static_cast<char>('0' + (value >> 6U));
      line += static_cast<char>('0' + ((value >> 3U) & 7U));
      line += static_cast<char>('0' + (value & 7U));
    } else {
      line += byte;
    }
  }
  return line;
}

std::string decodeHistoryLine(std::string_view line) {
  std::string message;
  while (!line.empty()) {
    char byte = line.front();
    size_t length = 1;
    if (byte == '\\') {
      length += decodeEscape(line.substr(1), byte);
    }
    message += byte;
    line.remove_prefix(length);
  }
  return message;
}

HistoryFile::HistoryFile(fs::path path) : file(std::move(path)) {
  struct stat info {};
  if (stat(file.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
    file.clear();
  }
}

std::vector<std::string> HistoryFile::load(size_t limit) {
  if (file.empty()) {
    return {};
  }
  const File open(file, O_RDONLY | O_NONBLOCK);
  struct stat info {};
  if (open.fd < 0 || !isRegular(open.fd, info)) {
    return {};
  }
  fchmod(open.fd, S_IRUSR | S_IWUSR);
  const bool locked = open.lock();
  std::string text;
  if (!readToEnd(open.fd, file.string(), text).ok()) {
    return {};
  }
  std::vector<std::string> messages = linesOf(text);
  const bool isLong = messages.size() > 2 * limit;
  if (messages.size() > limit) {
    messages.erase(messages.begin(), messages.end() - static_cast<std::ptrdiff_t>(limit));
  }
  if (isLong && locked && isNamed(file, info)) {
    replaceWith(messages, file);
  }
  return messages;
}

Status HistoryFile::append(const std::string& message) {
  if (file.empty()) {
    return Status::success();
  }
  std::error_code error;
  fs::create_directories(file.parent_path(), error);  // open tells of a failure
  while (true) {
    const File open(file, O_RDWR | O_CREAT | O_APPEND | O_NONBLOCK);
    if (open.fd < 0) {
      return failure(file);
    }
    // Without the lock it is a single write at the end all the same.
    const bool locked = open.lock();
    struct stat info {};
    if (!isRegular(open.fd, info)) {
      return Status::success();
    }
    if (locked && !isNamed(file, info)) {
      continue;
    }
    std::string text = encodeHistoryLine(message) + "\n";
    char last = '\n';
    if (info.st_size == 0) {
      text.insert(0, kHeader);
    } else if (pread(open.fd, &last, 1, info.st_size - 1) == 1 && last != '\n') {
      text.insert(0, "\n");  // somebody's write was cut short
    }
    fchmod(open.fd, S_IRUSR | S_IWUSR);
    if (writeAll(open.fd, text)) {
      return Status::success();
    }
    Status status = failure(file);
    if (locked) {
      (void)!ftruncate(open.fd, info.st_size);
    }
    return status;
  }
}

}  // namespace zym
