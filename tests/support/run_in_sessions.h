#pragma once

#include <gtest/gtest.h>
#include <tarns/core/TarnException.h>
#include <tarns/session/TarnAttachment.h>
#include <tarns/session/TarnManager.h>

#include <string>
#include <thread>
#include <vector>

// Runs work(i, session) in a thread each, in `session` and another one on its database in turn;
// what they throw fails the test.
template <class Work>
void run_in_sessions(tarns::TarnManager& session, int threads, const Work& work) {
  tarns::TarnManager other;
  other.connect(session.getDBconfigFilePath());
  std::vector<std::jthread> running;
  for (int i = 0; i < threads; ++i) {
    running.emplace_back([&, i] {
      tarns::TarnManager& mine = i % 2 == 0 ? session : other;
      const tarns::TarnAttachment attachment(mine);
      try {
        work(i, mine);
      } catch (const tarns::TarnException& error) {
        ADD_FAILURE() << "thread " << i << ": " << error.getError();
      }
    });
  }
  running.clear();  // before the session that they use
}
