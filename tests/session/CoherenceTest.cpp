// What readers see of two values that every commit leaves equal, by every way that leads into the
// memory of a session, while other threads and sessions write.
#include <gtest/gtest.h>
#include <tarns/core/TarnBranchWalk.h>
#include <tarns/core/TarnException.h>
#include <tarns/core/TarnIterator.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <iterator>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/planted_faults.h"
#include "support/session_fixture.h"

namespace tarns {
namespace {

#ifdef __SANITIZE_THREAD__
constexpr std::uint64_t kReads = 50'000;
#else
constexpr std::uint64_t kReads = 1'000'000;
#endif

using Value = std::int64_t;

constexpr const char* kLeft = "pair~left";
constexpr const char* kRight = "pair~right";
constexpr int kFiller = 3'000;  // nodes of 500 bytes of text: more than the smallest cache holds

std::string FillerPath(unsigned number) {
  return "filler~" + std::to_string(number % kFiller) + "~text";
}

// The counts between which every value that is read must be.
struct Committed {
  std::atomic<Value> acknowledged{0};  // the last commit that has returned
  std::atomic<Value> announced{0};     // the last commit that has begun

  static void Raise(std::atomic<Value>& to, Value value) {
    Value before = to.load();
    while (before < value && !to.compare_exchange_weak(before, value)) continue;
  }
};

// What one thread reads with, and what it has read.
struct Reader {
  explicit Reader(TarnManager& session)
      : manager(session),
        pair(session.getObject("pair")),
        left(session.getObject(kLeft)),
        right(session.getObject(kRight)),
        leftId(session.getObjectID(kLeft)),
        rightId(session.getObjectID(kRight)) {}

  void see(Value value) { seen.push_back(value); }
  void seeChild(std::string_view name, Value value) {
    if (name == "left" || name == "right") see(value);
  }

  TarnManager& manager;
  const TarnRef pair, left, right;
  const std::uint64_t leftId, rightId;
  std::vector<Value> seen;
  unsigned count = 0;
};

struct RollBack {};

struct Way {
  const char* name;
  bool isOneState;   // all that it reads is read at once, also outside transactions
  bool isForInside;  // of transactions, too
  int times;         // one after the other; what is quick is done more often
  void (*read)(Reader& reader);
};

const Way kWays[] = {
    {"path", false, true, 30,
     [](Reader& r) {
       r.see(r.manager.getSint64(kLeft));
       r.see(r.manager.getSint64(kRight));
     }},
    {"access", false, true, 30,
     [](Reader& r) {
       r.see(r.left->getSint64(""));
       r.see(r.right->getSint64(""));
     }},
    {"identifier", false, true, 30,
     [](Reader& r) {
       r.see(r.manager.getObject(r.leftId)->getSint64(""));
       r.see(r.manager.getObject(r.rightId)->getSint64(""));
     }},
    {"path below a node", false, true, 30,
     [](Reader& r) {
       r.see(r.pair->getSint64("left"));
       r.see(r.pair->getSint64("right"));
     }},
    {"root", false, true, 30,
     [](Reader& r) {
       r.see(r.manager.getRoot()->getSint64(kLeft));
       r.see(r.manager.getRoot()->getChildWithName(kRight)->getSint64(""));
     }},
    {"walk", true, true, 30,
     [](Reader& r) {
       for (const TarnBranchWalk::Step& step : TarnBranchWalk(r.pair))
         r.seeChild(step.name, step.value.getSint64());
     }},
    {"children", false, true, 30,
     [](Reader& r) {
       for (const auto& [name, child] : r.manager.children("pair")) {
         if (name != "middle") r.seeChild(name, child->getSint64(""));
       }
     }},
    {"iterator", false, true, 30,
     [](Reader& r) {
       XString name;
       for (TarnIterator at = r.pair->getIterTo("left"); !at.isNull();) {
         const TarnRef child = at.next(&name);
         if (name != "middle") r.seeChild(name.getText(), child->getSint64(""));
       }
     }},
    {"after dropping it from memory", false, true, 1,
     [](Reader& r) {
       // More than the session may keep, so that both are loaded anew now and then.
       for (int i = 0; i < 40; ++i) {
         r.manager.getObject(FillerPath(r.count += 7))->getXString("");
       }
       r.see(r.left->getSint64(""));
       r.see(r.manager.getSint64(kRight));
     }},
    {"after a rollback", false, false, 30,
     [](Reader& r) {
       try {
         r.manager.transaction([&] {
           r.manager.set(kLeft, Value{-1});
           modify(r.right)->setValue("", Value{-1});
           throw RollBack();
         });
       } catch (const RollBack&) {
         ++r.count;
       }
       r.see(r.left->getSint64(""));
       r.see(r.manager.getSint64(kRight));
     }},
};

using fault = planted_faults::fault;

struct Row {
  const char* name;
  int storages;
  std::optional<fault> planted;
};

// Sessions on a database: the first as they are by default, the second without remembered values,
// the third with the smallest cache.
class CoherenceTest : public session_test, public testing::WithParamInterface<Row> {
 protected:
  static constexpr std::size_t kSessions = 3;

  CoherenceTest()
      : session_test(GetParam().storages, "?durability=relaxed",
                     scratch_directory::place::in_memory) {
    fill();
    close();
    if (GetParam().planted) {
      faults_.emplace(*GetParam().planted, *GetParam().planted == fault::skipped_lock ? 7 : 50);
    }
    for (TarnManager& session : sessions_) session.connect(configuration().c_str());
    sessions_[1].db().getCacheManager().rememberValues(false);
    sessions_[2].setCacheLimit(std::size_t{1} << 20);
  }

  void fill() {
    manager().transaction([&] {
      manager().set("pair");
      for (unsigned i = 0; i < 2; ++i) {
        const TarnRef node = TarnObject::CreateOfType("TarnSint64Value");
        manager().attachToStorage(node, i % manager().getNumStorages());
        manager().set(i == 0 ? kLeft : kRight, node);
        manager().set(i == 0 ? kLeft : kRight, Value{0});
      }
      for (unsigned i = 0; i < kFiller; ++i) manager().set(FillerPath(i), std::string(500, 'x'));
    });
  }

  // Makes both one larger, and puts something between them or takes it away.
  void write(TarnManager& session, unsigned round) {
    const Value next = session.transaction([&] {
      const Value value = session.getSint64(kLeft) + 1;
      session.set(kLeft, value);
      session.set(kRight, value);
      if (round % 8 == 0) session.set("pair~middle~" + std::to_string(round), value);
      if (round % 8 == 4) session.deleteBranch("pair~middle");
      Committed::Raise(committed_.announced, value);
      return value;
    });
    Committed::Raise(committed_.acknowledged, next);
  }

  void readOnce(Reader& reader, const Way& way, bool isInside, Value& last) {
    const Value least = std::max(last, committed_.acknowledged.load());
    if (isInside) {
      reader.manager.transaction([&] {
        reader.seen.clear();
        way.read(reader);
      });
    } else {
      reader.seen.clear();
      way.read(reader);
    }
    const Value most = committed_.announced;
    bool isRight = reader.seen.size() == 2;
    for (const Value value : reader.seen) {
      isRight = isRight && value >= std::max(least, last) && value <= most;
      last = value;
    }
    if (isInside || way.isOneState) isRight = isRight && reader.seen[0] == reader.seen[1];
    if (!isRight) report(reader, way, isInside, least, most);
  }

  void report(const Reader& reader, const Way& way, bool isInside, Value least, Value most) {
    std::string text =
        "by " + std::string(way.name) + (isInside ? " inside" : " outside") + " a transaction:";
    for (const Value value : reader.seen) text += " " + std::to_string(value);
    text += ", must be from " + std::to_string(least) + " to " + std::to_string(most);
    report(text);
  }

  void report(const std::string& text) {
    const std::lock_guard guard(lock_);
    if (wrong_.size() < 10) wrong_.push_back(text);
    hasWrong_ = true;
  }

  // A storage that breaks its promises may make calls fail, too.
  template <class Work>
  void tolerant(const Work& work) {
    try {
      work();
    } catch (const TarnException& error) {
      if (!faults_) report(error.getError());
    }
  }

  // When so much has been read, or with a fault planted when it has shown.
  bool isOver() const {
    if (!faults_) return reads_ >= kReads / 2;
    return hasWrong_ || std::chrono::steady_clock::now() > start_ + std::chrono::minutes(1);
  }

  void keepWriting(TarnManager& session) {
    const TarnAttachment attachment(session);
    for (unsigned round = 0; isReading_; ++round) {
      tolerant([&] { write(session, round); });
    }
  }

  void keepReading(TarnManager& session) {
    const TarnAttachment attachment(session);
    Reader reader(session);
    Value last = 0;
    for (unsigned round = 0; !isOver(); ++round) {
      const Way& way = kWays[round % std::size(kWays)];
      const bool isInside = way.isForInside && round / std::size(kWays) % 2 == 0;
      for (int i = 0; i < way.times; ++i) {
        tolerant([&] { readOnce(reader, way, isInside, last); });
      }
      reads_ += 2 * static_cast<std::uint64_t>(way.times);
    }
  }

  std::optional<planted_faults> faults_;  // from when all is filled to when all is closed
  Committed committed_;
  std::array<TarnManager, kSessions> sessions_;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::atomic<std::uint64_t> reads_{0};
  std::atomic<bool> isReading_{true}, hasWrong_{false};
  std::mutex lock_;
  std::vector<std::string> wrong_;  // under lock_
};

INSTANTIATE_TEST_SUITE_P(Rows, CoherenceTest,
                         testing::Values(Row{"OneStorage", 1, std::nullopt},
                                         Row{"TwoStorages", 2, std::nullopt},
                                         Row{"LockSkipped", 1, fault::skipped_lock},
                                         Row{"StateStale", 1, fault::stale_state},
                                         Row{"NoticeLate", 1, fault::late_notice}),
                         [](const auto& row) { return row.param.name; });

TEST_P(CoherenceTest, NoWayToReadLeadsToAnythingOld) {
  {
    std::vector<std::jthread> writers, readers;
    for (TarnManager* session : {&sessions_[0], &sessions_[1]}) {
      writers.emplace_back([this, session] { keepWriting(*session); });
    }
    for (TarnManager& session : sessions_) {
      readers.emplace_back([&] { keepReading(session); });
    }
    readers.clear();
    isReading_ = false;
  }
  EXPECT_EQ(hasWrong_, faults_.has_value()) << testing::PrintToString(wrong_);
  EXPECT_GT(committed_.acknowledged, 0);
}

}  // namespace
}  // namespace tarns
