#include <spdlog/logger.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <tarns/logging/Log.h>

#include <atomic>
#include <exception>
#include <memory>
#include <mutex>
#include <span>
#include <utility>

namespace tarns {

namespace {

std::atomic<Log::Level> lowestLevel{Log::Info};

// Where lines go instead of standard error.
struct Redirection {
  std::mutex mutex;
  std::shared_ptr<const Log::Sink> sink;  // under `mutex`; null for standard error
};

// Never destroyed: the destructors of static objects may log.
Redirection& TheRedirection() {
  static auto& redirection = *new Redirection;
  return redirection;
}

spdlog::logger& StandardError() {
  static auto& logger = *[] {
    auto sink = std::make_shared<spdlog::sinks::stderr_sink_mt>();
    auto made = std::make_unique<spdlog::logger>("tarns", std::move(sink));
    made->set_level(spdlog::level::trace);
    made->flush_on(spdlog::level::trace);
    return made.release();
  }();
  return logger;
}

spdlog::level::level_enum ToSpdlog(Log::Level level) {
  switch (level) {
    case Log::Debug:
      return spdlog::level::debug;
    case Log::Info:
      return spdlog::level::info;
    case Log::Warning:
      return spdlog::level::warn;
    default:
      return spdlog::level::err;
  }
}

bool IsControl(char character) {
  const auto byte = static_cast<unsigned char>(character);
  return (byte < 32 && character != '\t') || byte == 127;
}

Buffer Escaped(std::string_view line, std::span<const std::size_t> breaks) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  Buffer escaped;
  for (const char& character : line) {
    const auto place = static_cast<std::size_t>(&character - line.data());
    if (!breaks.empty() && breaks.front() == place) {
      breaks = breaks.subspan(1);
      escaped << character;
    } else if (IsControl(character)) {
      const auto byte = static_cast<unsigned char>(character);
      escaped << "\\x" << kDigits[byte >> 4] << kDigits[byte & 15];
    } else {
      escaped << character;
    }
  }
  return escaped;
}

void Write(Log::Level level, std::string_view line, std::span<const std::size_t> breaks) {
  std::shared_ptr<const Log::Sink> sink;
  {
    const std::scoped_lock lock(TheRedirection().mutex);
    sink = TheRedirection().sink;
  }
  const Buffer escaped = Escaped(line, breaks);
  if (sink != nullptr) {
    (*sink)(level, escaped.view());
  } else {
    const std::string_view text = escaped.view();
    StandardError().log(ToSpdlog(level), spdlog::string_view_t(text.data(), text.size()));
  }
}

}  // namespace

Log::~Log() {
  if (level_ < lowestLevel.load(std::memory_order_relaxed)) return;
  try {
    Write(level_, line_.view(), breaks_);
  } catch (...) {  // NOLINT(bugprone-empty-catch): there is nowhere left to report it
  }
}

Log& Log::operator<<(LineBreak) {
  breaks_.push_back(line_.getLength());
  line_ << '\n';
  return *this;
}

Log::Sink Log::Redirect(Sink sink) {
  auto next = sink ? std::make_shared<const Sink>(std::move(sink)) : nullptr;
  {
    const std::scoped_lock lock(TheRedirection().mutex);
    next.swap(TheRedirection().sink);
  }
  return next != nullptr ? *next : Sink();
}

void Log::SetLevel(Level level) noexcept { lowestLevel.store(level, std::memory_order_relaxed); }

}  // namespace tarns
