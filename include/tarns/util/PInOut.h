#pragma once

#include <tarns/tarns_api.h>
#include <tarns/util/XProgressReporter.h>
#include <tarns/util/XString.h>

#include <charconv>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>

namespace tarns {

// What a line can hold as a number.
template <class T>
concept PInOutNumber = (std::integral<T> && sizeof(T) <= 8 && !std::same_as<T, bool>) ||
                       std::same_as<T, float> || std::same_as<T, double>;

// Reads or writes a text of lines, each a command and perhaps a value, nested by indentation. The
// grammar stands in docs/text-format.md.
//
//   PInOut out;                          PInOut in;
//   out.openForWrite("a.txt");           in.openForRead("a.txt");
//   out.write("Machine", "press");       while (!in.isAtEnd()) {
//   out.indentIn();                        if (in.isCmd("Speed")) in.read(speed);
//   out.write("Speed", 40);                else in.readLine();
//   if (!out.close()) ...                }
//
// Streams: neither direction holds more than a few lines at a time. Real numbers are written with
// the fewest digits that read back exactly; nothing depends on the locale.
//
// Level: both sides count it from 0. A reader sees lines of its level only: a line that is less
// deep reads as the command "", which ends what was being read; a deeper one where a command is
// looked for is an error of the text. Who reads what is nested calls indentIn() and indentOut() as
// its writer did.
//
// Errors: opening returns false, and errno says why; what is wrong with a text throws XException
// "Line N: ..."; writing returns false from the first failure on. Threads: one.
class TARNS_API PInOut {
 public:
  enum Status : int { Failed = 0, End = 1, Continue = 2 };

  // Fills up to `size` bytes, returns how many; 0 at the end. Throws what went wrong.
  using Source = std::function<std::size_t(char* into, std::size_t size)>;
  // Takes all of the bytes; false when it cannot.
  using Sink = std::function<bool(std::string_view bytes)>;

  static constexpr std::size_t kDeepestIndentation = 64;               // levels, see the grammar
  static constexpr std::size_t kMaxLineLength = std::size_t{1} << 30;  // bytes

  PInOut();
  PInOut(const PInOut&) = delete;
  PInOut& operator=(const PInOut&) = delete;
  virtual ~PInOut();  // a file that was not closed does not appear

  static const char* GetType() { return "PInOut"; }
  virtual const char* getType() const { return GetType(); }
  virtual bool isDerivedFrom(const char* typeName) const;
  bool isOfType(const char* typeName) const { return ViewOf(typeName) == getType(); }

  // --- Opening and closing; one text at a time --------------------------------------------------

  // Reading begins at the first line, which is current then.
  bool openForRead(const char* path);
  void readFrom(std::istream& in);
  void readFrom(Source source, std::uint64_t size = 0);  // bytes, for progress; 0: not known
  // The file appears under its name, or takes the place of the one there (of a link: the link's),
  // when it is complete: with close(). Permissions 0600.
  bool openForWrite(const char* path);
  // A new file with permissions 0600 in $TMPDIR or /tmp, created under a name of its own that
  // nobody can have put a link at. It stays after close() and is the caller's to delete.
  bool openTempForWrite();
  void writeTo(std::ostream& out);
  void writeTo(std::string& out);
  void writeTo(Sink sink);
  // Of writing: whether everything has been written. What is not closed is not complete.
  bool close();
  const char* getFilename() const { return path_.c_str(); }

  // Tells how many bytes have been read, and at the end that all have.
  void reportProgressTo(XProgressReporter* reporter) { reporter_ = reporter; }

  // --- Writing ----------------------------------------------------------------------------------

  bool write(const char* command);  // a bare line
  template <StringViewLike T>
  bool write(const char* command, const T& value) {
    return writeText(command, value);
  }
  bool write(const char* command, const char* value) { return writeText(command, ViewOf(value)); }
  bool write(const char* command, const XString& value) { return writeText(command, value.view()); }
  bool write(const char* command, bool value) {
    return writeText(command, value ? "True" : "False");
  }
  template <PInOutNumber T>
  bool write(const char* command, T value) {
    char digits[40];
    const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    return writeText(command, std::string_view(digits, static_cast<std::size_t>(end - digits)));
  }
  bool hasFailed() const { return hasFailed_; }

  // --- Reading: the current line ----------------------------------------------------------------

  // Goes on to the next line; End when there is none.
  Status readLine();
  bool isAtEnd() const { return line_.isEnd; }
  // At the end: whether the last line had no line feed, as when the text was cut within it.
  bool isLastLineOpen() const { return isLastLineOpen_; }
  // "" for a line that is less deep than the level, and at the end.
  const char* getCommand() const;
  bool isCmd(const char* command) const { return ViewOf(command) == getCommand(); }
  // False for a bare line, which stands for null where texts are read.
  bool hasValue() const { return line_.hasValue; }
  std::string getValue() const;
  // Read the value and go on to the next line: Continue. End, and nothing is read, where there is
  // no line at this level.
  Status read(XString& value);  // without text for a bare line
  Status read(std::string& value);
  Status read(bool& value);
  template <PInOutNumber T>
  Status read(T& value) {
    if (*getCommand() == '\0') return End;
    T number;
    if (!ParseNumber(getValue(), number)) fail("this is no number that fits");
    value = number;
    readLine();
    return Continue;
  }
  std::uint64_t getLineNumber() const { return line_.number; }  // from 1
  std::size_t getLineLevel() const { return line_.level; }
  // Passes over lines of `level` and deeper; how many there were.
  std::uint64_t skip(std::size_t level);
  // Throws "Line N: WHAT." for the current line.
  [[noreturn]] void fail(std::string_view what) const;

  // The whole text as a number: digits with or without separators of thousands; reals also with an
  // exponent, inf and nan. False, and `value` as it was, for anything else and what does not fit.
  template <PInOutNumber T>
  static bool ParseNumber(std::string_view text, T& value);

  // --- Both -------------------------------------------------------------------------------------

  void indentIn() { ++level_; }
  void indentOut() { --level_; }
  std::size_t getLevel() const { return level_; }
  void setLevel(std::size_t level) { level_ = level; }

  // --- For who nests without recursion ----------------------------------------------------------

  // Somebody who is told of nested blocks, see core/. Not owned.
  class Nesting {
   public:
    virtual ~Nesting();
  };
  Nesting* getNesting() const { return nesting_; }
  void setNesting(Nesting* nesting) { nesting_ = nesting; }
  // What has been written and not handed on yet; while held, nothing is handed on.
  std::string& pending() { return buffer_; }
  void hold() { ++holds_; }
  bool release();  // false when writing fails

 private:
  struct Line {
    std::uint64_t number = 0;
    std::size_t level = 0;
    bool hasValue = false;
    bool isEnd = true;
  };
  class File;

  bool writeText(const char* command, std::string_view value);
  void startReading();
  bool startWriting(Sink sink);
  bool flush();
  void writeIndentation();
  void appendQuoted(std::string_view text, bool isCommand);
  bool endLine();
  bool fetch();
  bool nextRawLine(std::string_view& line);
  void parse(std::string_view line);
  std::string unquoted(std::string_view text, std::size_t& end) const;
  static void RemoveGroups(std::string& digits);

  static constexpr std::size_t kBlock = 64 * 1024;  // bytes
  std::unique_ptr<File> file_;                      // null when none is open
  std::string path_;
  std::size_t level_ = 0;
  Nesting* nesting_ = nullptr;
  // Writing.
  Sink sink_;
  std::string buffer_;  // also what has been read and not parsed
  unsigned holds_ = 0;
  bool hasFailed_ = false;
  // Reading.
  Source source_;
  std::size_t at_ = 0, filled_ = 0;  // in buffer_
  bool isSourceAtEnd_ = true;
  Line line_;
  bool isLastLineOpen_ = false;
  std::string command_;
  std::string_view value_;  // as it stands in buffer_
  XProgressReporter* reporter_ = nullptr;
  std::uint64_t done_ = 0, total_ = 0;  // bytes
};

template <PInOutNumber T>
bool PInOut::ParseNumber(std::string_view text, T& value) {
  std::string plain;
  if (text.find(',') != std::string_view::npos) {
    plain = text;
    RemoveGroups(plain);
    text = plain;
  }
  T number{};
  const auto read = std::from_chars(text.data(), text.data() + text.size(), number);
  if (read.ec != std::errc() || read.ptr != text.data() + text.size()) return false;
  value = number;
  return true;
}

}  // namespace tarns
