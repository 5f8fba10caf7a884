#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <tarns/util/FileFP.h>
#include <tarns/util/PInOut.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "support/comma_locale.h"
#include "support/scratch_directory.h"
#include "support/throws_tarn.h"

namespace tarns {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

std::string WrittenLine(const char* command, std::string_view value) {
  std::string text;
  PInOut out;
  out.writeTo(text);
  EXPECT_TRUE(out.write(command, value));
  EXPECT_TRUE(out.close());
  return text;
}

// A reader of the text, with the first line current.
class Reader : public PInOut {
 public:
  explicit Reader(std::string_view text) : stream_(std::string(text)) { readFrom(stream_); }

 private:
  std::istringstream stream_;
};

TEST(PInOutTest, WritesAndReadsEveryText) {
  struct Case {
    std::string value;
    const char* line;
  };
  const Case cases[] = {
      {"", "a \"\"\n"},
      {"plain text, {} NULL \\ = ~ '", "a plain text, {} NULL \\ = ~ '\n"},
      {" a", "a \" a\"\n"},
      {"a ", "a \"a \"\n"},
      {"say \"\\\"", "a \"say \\\"\\\\\\\"\"\n"},
      {"1\n2\r3\t4", "a \"1\\n2\\r3\\t4\"\n"},
      {std::string("\0\x01\x7F", 3), "a \"\\x00\\x01\\x7F\"\n"},
      {"gr\xC3\xBC\xC3\x9F \xE2\x82\xAC \xF0\x9F\x98\x80", nullptr},
      {"\xC3", "a \"\\xC3\"\n"},
      {"\xC0\x80\xED\xA0\x80\xF4\x90\x80\x80", nullptr},
      {"\xC3\xBC\xFF", "a \"\xC3\xBC\\xFF\"\n"},
      {"\xEF\xBB\xBF", nullptr},
  };
  for (const Case& c : cases) {
    const std::string line = WrittenLine("a", c.value);
    if (c.line != nullptr) {
      EXPECT_EQ(line, c.line);
    }
    std::string value;
    EXPECT_EQ(Reader(line).read(value), PInOut::Continue);
    EXPECT_EQ(value, c.value) << line;
  }
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) bytes += static_cast<char>(byte);
  for (std::size_t length = 0; length <= bytes.size(); ++length) {
    std::string value;
    Reader(WrittenLine("a", bytes.substr(length))).read(value);
    EXPECT_EQ(value, bytes.substr(length));
  }
}

TEST(PInOutTest, QuotesCommandsThatWouldReadDifferently) {
  for (const char* command : {"a", "a b", "(1) a", "\"", "}", "\n", "\xFF", " ", "("}) {
    const std::string line = WrittenLine(command, "x");
    Reader in(line);
    EXPECT_STREQ(in.getCommand(), command) << line;
    EXPECT_EQ(in.getValue(), "x") << line;
  }
}

template <class T>
void ExpectReadBack(std::initializer_list<T> values) {
  for (const T value : values) {
    std::string text;
    PInOut out;
    out.writeTo(text);
    out.write("a", value);
    out.close();
    T read{};
    EXPECT_EQ(Reader(text).read(read), PInOut::Continue);
    EXPECT_EQ(read, value) << text;
    EXPECT_EQ(std::signbit(static_cast<double>(read)), std::signbit(static_cast<double>(value)));
  }
}

template <class T>
void ExpectLimitsReadBack() {
  using Limits = std::numeric_limits<T>;
  ExpectReadBack<T>({Limits::lowest(), Limits::max(), Limits::min(), T(0), T(1)});
}

TEST(PInOutTest, ReadsNumbersBackExactly) {
  const comma_locale locale;
  ExpectLimitsReadBack<std::int8_t>();
  ExpectLimitsReadBack<std::uint8_t>();
  ExpectLimitsReadBack<std::int16_t>();
  ExpectLimitsReadBack<std::uint16_t>();
  ExpectLimitsReadBack<std::int32_t>();
  ExpectLimitsReadBack<std::uint32_t>();
  ExpectLimitsReadBack<long>();
  ExpectLimitsReadBack<unsigned long>();
  ExpectLimitsReadBack<long long>();
  ExpectLimitsReadBack<float>();
  ExpectLimitsReadBack<double>();
  ExpectReadBack<double>({0.1, 1.0 / 3, -0.0, 5e-324, 1e22, INFINITY, -INFINITY});
  ExpectReadBack<float>({0.1F, 1e-45F, -0.0F, INFINITY});
  ExpectReadBack<bool>({true, false});
  double nan = 0;
  Reader("a nan").read(nan);
  EXPECT_TRUE(std::isnan(nan));
}

TEST(PInOutTest, RefusesWhatIsNoNumberThatFits) {
  for (const char* text : {"", "x", "12x", "1.5", "128", "-129", "1 2", "0x1", "1,2", "--1"}) {
    std::int8_t number = 7;
    EXPECT_THAT([&] { Reader("b 1\na " + std::string(text)).readLine(); },
                testing::Not(testing::Throws<XException>()));
    Reader in("b 1\na " + std::string(text));
    in.readLine();
    EXPECT_THAT([&] { in.read(number); }, ThrowsX("Line 2: this is no number that fits."));
    EXPECT_EQ(number, 7);
  }
  std::int32_t grouped = 0;
  Reader("a -1,234,567").read(grouped);
  EXPECT_EQ(grouped, -1'234'567);
}

TEST(PInOutTest, TakesWhatEditorsLeave) {
  Reader in(
      "\xEF\xBB\xBF"
      "a 1  \r\n\r\n   \n  b\t\r\n  c \"x\"  \r\n\nd");
  std::vector<std::string> lines;
  while (!in.isAtEnd()) {
    in.setLevel(in.getLineLevel());
    lines.push_back(std::to_string(in.getLineNumber()) + ":" + in.getCommand() + "=" +
                    in.getValue() + (in.hasValue() ? "" : "-"));
    in.readLine();
  }
  EXPECT_THAT(lines, ElementsAre("1:a=1", "4:b\t=-", "5:c=x", "7:d=-"));
}

TEST(PInOutTest, SaysWhichLineIsWrong) {
  struct Case {
    const char *text, *error;
  };
  const Case cases[] = {
      {"a\n b", "Line 2: indentation is two blanks for each level."},
      {"a\n\tb", "Line 2: indentation is two blanks for each level, not tabs."},
      {"a\n  \tb", "Line 2: indentation is two blanks for each level, not tabs."},
      {"a\n(x) b", "Line 2: a level in parentheses cannot be read."},
      {"a\n(-1) b", "Line 2: a level in parentheses cannot be read."},
      {"a\n(99999999999999999999) b", "Line 2: a level in parentheses cannot be read."},
      {"a\n(1)b", "Line 2: a level in parentheses cannot be read."},
      {"a\n  (1) b", "Line 2: a level in parentheses cannot be read."},
      {"a\n\"b", "Line 2: the closing quotation mark is missing."},
      {"a\n\"b\"c", "Line 2: a blank must follow the quotation mark."},
      {"a\n\"\" c", "Line 2: there is no command."},
  };
  for (const Case& c : cases) {
    Reader in(c.text);
    EXPECT_THAT([&] { in.readLine(); }, ThrowsX(c.error)) << c.text;
  }
  for (const char* value :
       {"\"x", "\"x\\\"", "\"\\q\"", "\"\\x4\"", "\"\\xZZ\"", "\"x\" y", "\"\\"}) {
    Reader in("a\nb " + std::string(value));
    in.readLine();
    EXPECT_THAT([&] { in.getValue(); }, ThrowsX(HasSubstr("Line 2: "))) << value;
  }
}

TEST(PInOutTest, ShowsTheLinesOfItsLevel) {
  Reader in("a\n  b\n  c\nd");
  EXPECT_STREQ(in.getCommand(), "a");
  in.readLine();
  EXPECT_THAT([&] { in.getCommand(); }, ThrowsX("Line 2: this line is indented too far."));
  in.indentIn();
  EXPECT_TRUE(in.isCmd("b"));
  EXPECT_EQ(in.skip(1), 2U);
  EXPECT_STREQ(in.getCommand(), "");
  int number = 5;
  EXPECT_EQ(in.read(number), PInOut::End);
  in.indentOut();
  EXPECT_TRUE(in.isCmd("d"));
  EXPECT_EQ(in.readLine(), PInOut::End);
  EXPECT_STREQ(in.getCommand(), "");
}

TEST(PInOutTest, WritesDeepLevelsAsNumbers) {
  std::string text;
  PInOut out;
  out.writeTo(text);
  out.setLevel(PInOut::kDeepestIndentation);
  out.write("a");
  out.indentIn();
  out.write("b", 1);
  out.setLevel(1'000'000);
  out.write("c");
  out.close();
  EXPECT_EQ(text, std::string(128, ' ') + "a\n(65) b 1\n(1000000) c\n");
  Reader in(text);
  EXPECT_EQ(in.getLineLevel(), 64U);
  in.readLine();
  EXPECT_EQ(in.getLineLevel(), 65U);
  in.readLine();
  EXPECT_EQ(in.getLineLevel(), 1'000'000U);
}

// Lines of all lengths around the size of what is read at once.
TEST(PInOutTest, ReadsLinesThatCrossBlocks) {
  std::string text;
  PInOut out;
  out.writeTo(text);
  std::vector<std::size_t> lengths;
  for (std::size_t i = 0; i < 600; ++i) lengths.push_back(i * 37 % 1000);
  for (const std::size_t length : {65'530, 65'536, 65'600, 200'000, 3'000'000}) {
    lengths.push_back(length);
  }
  for (const std::size_t length : lengths) out.write("a", std::string(length, 'x'));
  out.close();
  PInOut in;
  std::size_t at = 0;
  in.readFrom(
      [&](char* into, std::size_t size) {
        const std::size_t count = std::min({size, text.size() - at, std::size_t{777}});
        text.copy(into, count, at);
        at += count;
        return count;
      },
      text.size());
  for (const std::size_t length : lengths) {
    std::string value;
    ASSERT_EQ(in.read(value), PInOut::Continue);
    ASSERT_EQ(value.size(), length);
  }
  EXPECT_TRUE(in.isAtEnd());
}

TEST(PInOutTest, PutsFilesInPlaceWhenTheyAreComplete) {
  const scratch_directory directory;
  const std::string victim = directory.file("victim"), file = directory.file("file");
  FileFP::WriteToFile(victim.c_str(), "kept", 0644);
  ASSERT_EQ(::symlink(victim.c_str(), file.c_str()), 0);
  {
    PInOut abandoned;
    ASSERT_TRUE(abandoned.openForWrite(file.c_str()));
    abandoned.write("a");
  }
  EXPECT_TRUE(std::filesystem::is_symlink(file));
  PInOut out;
  ASSERT_TRUE(out.openForWrite(file.c_str()));
  EXPECT_EQ(file, out.getFilename());
  out.write("a", 1);
  EXPECT_TRUE(out.close());
  EXPECT_EQ(FileFP::ReadBytes(victim.c_str()), "kept");
  EXPECT_EQ(FileFP::ReadBytes(file.c_str()), "a 1\n");
  struct stat status {};
  ASSERT_EQ(::lstat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, S_IFREG | 0600U);
  EXPECT_FALSE(out.openForWrite(directory.file("none/file").c_str()));
  EXPECT_FALSE(out.openForRead(directory.file("none").c_str()));
  EXPECT_FALSE(out.openForRead(directory.path().c_str()));
}

TEST(PInOutTest, SaysThatWritingFailed) {
  std::size_t room = 100'000;
  PInOut out;
  out.writeTo([&](std::string_view bytes) {
    if (bytes.size() > room) return false;
    room -= bytes.size();
    return true;
  });
  bool isWritten = true;
  for (int i = 0; i < 10; ++i) isWritten = out.write("a", std::string(50'000, 'x'));
  EXPECT_FALSE(isWritten);
  EXPECT_TRUE(out.hasFailed());
  EXPECT_FALSE(out.close());
}

TEST(PInOutTest, ReportsProgressUpToTheEnd) {
  struct Reporter : XProgressReporter {
    void reportProgress(std::uint64_t done, std::uint64_t total) override {
      EXPECT_GE(done, last);
      EXPECT_LE(done, total);
      last = done;
      end = total;
    }
    std::uint64_t last = 0, end = 0;
  } reporter;
  const scratch_directory directory;
  const std::string file = directory.file("file");
  FileFP::WriteToFile(file.c_str(), "a " + std::string(300'000, 'x') + "\nb\n", 0600);
  PInOut in;
  in.reportProgressTo(&reporter);
  ASSERT_TRUE(in.openForRead(file.c_str()));
  while (in.readLine() == PInOut::Continue) {
  }
  EXPECT_EQ(reporter.last, 300'005U);
  EXPECT_EQ(reporter.end, 300'005U);
}

}  // namespace
}  // namespace tarns
