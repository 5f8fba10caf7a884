#include <tarns/util/FileFP.h>
#include <tarns/util/PInOut.h>
#include <tarns/util/Stringer.h>
#include <tarns/util/TempFile.h>
#include <tarns/util/XException.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <istream>
#include <ostream>
#include <utility>

#include "util/file_error.h"
#include "util/pinout_text.h"

namespace tarns {

namespace {

bool IsPlainCommand(std::string_view text) {
  return IsPlainText(text) && text.front() != '(' && text.find(' ') == std::string_view::npos;
}

// What most lines are, with one look at the room that there is.
void AppendPlain(std::string& text, std::size_t blanks, std::string_view command,
                 std::string_view value) {
  const std::size_t before = text.size();
  text.resize(before + blanks + command.size() + 1 + value.size(), ' ');
  char* const at = text.data() + before + blanks;
  command.copy(at, command.size());
  value.copy(at + command.size() + 1, value.size());
}

}  // namespace

// The file that is read or written.
class PInOut::File {
 public:
  enum class Kind { kRead, kWrite, kTemporary };

  static std::unique_ptr<File> OpenForRead(const char* path) {
    const int descriptor = ::open(path, O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) return nullptr;
    struct stat status {};
    if (::fstat(descriptor, &status) == 0 && S_ISDIR(status.st_mode)) {
      ::close(descriptor);
      errno = EISDIR;
      return nullptr;
    }
    const bool isSizeKnown = S_ISREG(status.st_mode);
    return std::make_unique<File>(descriptor,
                                  isSizeKnown ? static_cast<std::uint64_t>(status.st_size) : 0);
  }
  File(int descriptor, std::uint64_t size) : descriptor_(descriptor), size_(size) {}
  // `target`: where the file comes to be when it is complete; empty: where it is.
  File(std::unique_ptr<TempFile> fresh, std::string target)
      : fresh_(std::move(fresh)), target_(std::move(target)) {}
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File() {
    if (descriptor_ >= 0) ::close(descriptor_);
  }

  std::size_t read(char* into, std::size_t size, const std::string& path) const {
    while (true) {
      const ssize_t count = ::read(descriptor_, into, size);
      if (count >= 0) return static_cast<std::size_t>(count);
      if (errno == EINTR) continue;
      ThrowFileError("read the file", path);
    }
  }
  bool write(std::string_view bytes) const {
    try {
      fresh_->write(bytes);
      return true;
    } catch (const XException&) {
      return false;  // the caller's result says so
    }
  }
  bool complete() const {
    if (fresh_ == nullptr) return true;
    try {
      fresh_->sync();
    } catch (const XException&) {
      return false;
    }
    if (!target_.empty() && std::rename(fresh_->getPath().c_str(), target_.c_str()) != 0) {
      return false;
    }
    fresh_->keep();
    return true;
  }
  std::uint64_t getSize() const { return size_; }

 private:
  int descriptor_ = -1;
  std::uint64_t size_ = 0;
  std::unique_ptr<TempFile> fresh_;
  std::string target_;
};

PInOut::Nesting::~Nesting() = default;

PInOut::PInOut() = default;

PInOut::~PInOut() = default;

bool PInOut::isDerivedFrom(const char* typeName) const { return ViewOf(typeName) == GetType(); }

// --- Opening and closing ------------------------------------------------------------------------

bool PInOut::openForRead(const char* path) {
  close();
  path_ = ViewOf(path);
  file_ = File::OpenForRead(path_.c_str());
  if (file_ == nullptr) return false;
  source_ = [this](char* into, std::size_t size) { return file_->read(into, size, path_); };
  total_ = file_->getSize();
  startReading();
  return true;
}

void PInOut::readFrom(std::istream& in) {
  readFrom([&in](char* into, std::size_t size) {
    in.read(into, static_cast<std::streamsize>(size));
    return static_cast<std::size_t>(in.gcount());
  });
}

void PInOut::readFrom(Source source, std::uint64_t size) {
  close();
  source_ = std::move(source);
  total_ = size;
  startReading();
}

bool PInOut::openForWrite(const char* path) {
  close();
  const std::string_view target = ViewOf(path);
  const std::size_t slash = target.rfind('/');
  const std::string directory(slash == std::string_view::npos ? "."
                              : slash == 0                    ? "/"
                                                              : target.substr(0, slash));
  try {
    file_ = std::make_unique<File>(std::make_unique<TempFile>(directory, ".tarns-"),
                                   std::string(target));
  } catch (const XException&) {
    return false;  // errno tells why
  }
  path_ = target;
  return startWriting([this](std::string_view bytes) { return file_->write(bytes); });
}

bool PInOut::openTempForWrite() {
  close();
  try {
    auto fresh = std::make_unique<TempFile>();
    path_ = fresh->getPath();
    file_ = std::make_unique<File>(std::move(fresh), std::string());
  } catch (const XException&) {
    return false;
  }
  return startWriting([this](std::string_view bytes) { return file_->write(bytes); });
}

void PInOut::writeTo(std::ostream& out) {
  writeTo([&out](std::string_view bytes) {
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return out.good();
  });
}

void PInOut::writeTo(std::string& out) {
  writeTo([&out](std::string_view bytes) {
    out += bytes;
    return true;
  });
}

void PInOut::writeTo(Sink sink) {
  close();
  startWriting(std::move(sink));
}

bool PInOut::startWriting(Sink sink) {
  sink_ = std::move(sink);
  level_ = 0;
  hasFailed_ = false;
  return true;
}

void PInOut::startReading() {
  level_ = 0;
  isSourceAtEnd_ = isLastLineOpen_ = false;
  done_ = 0;
  at_ = filled_ = 0;
  line_ = Line{};
  readLine();
}

bool PInOut::close() {
  bool isComplete = true;
  if (sink_) {
    isComplete = flush() && (file_ == nullptr || file_->complete());
  }
  sink_ = nullptr;
  source_ = nullptr;
  file_.reset();
  path_.clear();
  buffer_.clear();
  at_ = filled_ = 0;
  isSourceAtEnd_ = true;
  line_ = Line{};
  value_ = {};
  return isComplete;
}

// --- Writing ------------------------------------------------------------------------------------

bool PInOut::write(const char* command) {
  writeIndentation();
  appendQuoted(ViewOf(command), true);
  return endLine();
}

bool PInOut::writeText(const char* command, std::string_view value) {
  const std::string_view word = ViewOf(command);
  if (level_ <= kDeepestIndentation && IsPlainCommand(word) && IsPlainText(value)) {
    AppendPlain(buffer_, 2 * level_, word, value);
    return endLine();
  }
  writeIndentation();
  appendQuoted(word, true);
  buffer_ += ' ';
  appendQuoted(value, false);
  return endLine();
}

void PInOut::writeIndentation() {
  if (level_ <= kDeepestIndentation) {
    buffer_.append(2 * level_, ' ');
    return;
  }
  buffer_ += '(';
  buffer_ += std::to_string(level_);
  buffer_ += ") ";
}

void PInOut::appendQuoted(std::string_view text, bool isCommand) {
  if (isCommand ? IsPlainCommand(text) : IsPlainText(text)) {
    buffer_ += text;
  } else {
    AppendQuotedText(buffer_, text);
  }
}

bool PInOut::endLine() {
  buffer_ += '\n';
  if (holds_ == 0 && buffer_.size() >= kBlock) return flush();
  return !hasFailed_;
}

bool PInOut::release() {
  --holds_;
  return holds_ == 0 && buffer_.size() >= kBlock ? flush() : !hasFailed_;
}

bool PInOut::flush() {
  if (!hasFailed_ && !buffer_.empty()) hasFailed_ = !sink_ || !sink_(buffer_);
  buffer_.clear();
  if (buffer_.capacity() > 16 * kBlock) buffer_.shrink_to_fit();
  return !hasFailed_;
}

// --- Reading ------------------------------------------------------------------------------------

// Adds a block to what has been read; false at the end.
bool PInOut::fetch() {
  if (isSourceAtEnd_) return false;
  if (at_ != 0) {
    std::copy(buffer_.begin() + static_cast<std::ptrdiff_t>(at_),
              buffer_.begin() + static_cast<std::ptrdiff_t>(filled_), buffer_.begin());
    filled_ -= at_;
    at_ = 0;
  }
  if (filled_ > kMaxLineLength) {
    ++line_.number;
    fail("this line is too long");
  }
  const std::size_t wanted = std::max(kBlock, filled_ / 2);
  if (buffer_.size() < filled_ + wanted) buffer_.resize(filled_ + wanted);
  const std::size_t count = source_(buffer_.data() + filled_, buffer_.size() - filled_);
  filled_ += count;
  done_ += count;
  isSourceAtEnd_ = count == 0;
  if (reporter_ != nullptr) reporter_->reportProgress(done_, std::max(done_, total_));
  return count != 0;
}

bool PInOut::nextRawLine(std::string_view& line) {
  for (std::size_t searched = 0;;) {
    const std::string_view rest(buffer_.data() + at_, filled_ - at_);
    const std::size_t end = rest.find('\n', searched);
    if (end != std::string_view::npos) {
      line = rest.substr(0, end);
      at_ += end + 1;
      return true;
    }
    searched = rest.size();
    if (fetch()) continue;
    if (at_ == filled_) return false;
    line = std::string_view(buffer_.data() + at_, filled_ - at_);
    at_ = filled_;
    isLastLineOpen_ = true;
    return true;
  }
}

PInOut::Status PInOut::readLine() {
  constexpr std::string_view kMark = "\xEF\xBB\xBF";  // some editors put it in front of UTF-8
  std::string_view line;
  while (nextRawLine(line)) {
    ++line_.number;
    if (line_.number == 1 && line.starts_with(kMark)) line.remove_prefix(kMark.size());
    if (line.ends_with('\r')) line.remove_suffix(1);
    if (line.find_first_not_of(" \t") == std::string_view::npos) {
      isLastLineOpen_ = false;  // as far as anything stands in it
      continue;
    }
    line_.isEnd = false;
    parse(line);
    return Continue;
  }
  line_.isEnd = true;
  line_.level = 0;
  line_.hasValue = false;
  command_.clear();
  value_ = {};
  return End;
}

void PInOut::parse(std::string_view line) {
  const std::size_t blanks = line.find_first_not_of(' ');
  line.remove_prefix(blanks);
  if (line.front() == '\t') fail("indentation is two blanks for each level, not tabs");
  if (blanks % 2 != 0) fail("indentation is two blanks for each level");
  line_.level = blanks / 2;
  if (line.front() == '(') {
    const std::size_t close = line.find(") ");
    std::size_t level = 0;
    if (close == std::string_view::npos || blanks != 0 || line[1] == '+' ||
        !ParseNumber(line.substr(1, close - 1), level)) {
      fail("a level in parentheses cannot be read");
    }
    line_.level = level;
    line.remove_prefix(close + 2);
    if (line.empty()) fail("there is no command");
  }
  if (line.front() == '"') {
    std::size_t end = 0;
    command_ = unquoted(line, end);
    line.remove_prefix(end);
    if (!line.empty() && line.front() != ' ') fail("a blank must follow the quotation mark");
  } else {
    const std::size_t end = std::min(line.find(' '), line.size());
    command_ = line.substr(0, end);
    line.remove_prefix(end);
  }
  if (command_.empty()) fail("there is no command");
  // Editors may cut blanks at the end of a line; no value begins or ends with one.
  line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
  while (!line.empty() && Stringer::IsBlank(line.back())) line.remove_suffix(1);
  line_.hasValue = !line.empty();
  value_ = line;
}

const char* PInOut::getCommand() const {
  if (line_.isEnd || line_.level < level_) return "";
  if (line_.level > level_) fail("this line is indented too far");
  return command_.c_str();
}

std::string PInOut::getValue() const {
  if (!value_.starts_with('"')) return std::string(value_);
  std::size_t end = 0;
  std::string text = unquoted(value_, end);
  if (end != value_.size()) fail("something follows the closing quotation mark");
  return text;
}

std::string PInOut::unquoted(std::string_view text, std::size_t& end) const {
  std::string plain;
  if (const char* wrong = ReadQuotedText(text, plain, end)) fail(wrong);
  return plain;
}

PInOut::Status PInOut::read(XString& value) {
  if (*getCommand() == '\0') return End;
  if (hasValue()) {
    value = getValue();
  } else {
    value = XString();
  }
  readLine();
  return Continue;
}

PInOut::Status PInOut::read(std::string& value) {
  if (*getCommand() == '\0') return End;
  value = getValue();
  readLine();
  return Continue;
}

PInOut::Status PInOut::read(bool& value) {
  if (*getCommand() == '\0') return End;
  const std::string text = getValue();
  if (!ParseBoolean(text, value)) fail("this is neither True nor False");
  readLine();
  return Continue;
}

std::uint64_t PInOut::skip(std::size_t level) {
  std::uint64_t skipped = 0;
  for (; !isAtEnd() && line_.level >= level; ++skipped) readLine();
  return skipped;
}

void PInOut::fail(std::string_view what) const {
  XException error;
  error << "Line " << std::max<std::uint64_t>(line_.number, 1) << ": " << what << ".";
  throw error;
}

void PInOut::RemoveGroups(std::string& digits) {
  if (Stringer::IsFloat(digits.c_str())) std::erase(digits, ',');
}

}  // namespace tarns
