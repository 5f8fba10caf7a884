#include <algorithm>
#include <sstream>

#include "support/history.h"

std::string line_of(const history_transaction& transaction) {
  std::ostringstream line;
  line << transaction.begun << '-' << transaction.ended;
  if (transaction.end == history_transaction::outcome::aborted) line << " !";
  if (transaction.end == history_transaction::outcome::unknown) line << " ?";
  for (const history_step& step : transaction.steps) {
    const bool is_read = step.what == history_step::kind::read;
    line << ' ' << (is_read ? 'r' : 'a') << step.key;
    if (!step.path.empty()) line << '@' << step.path;
    line << '=';
    if (!is_read) line << step.element;
    for (std::size_t i = 0; i < step.list.size(); ++i) line << (i == 0 ? "" : ",") << step.list[i];
  }
  line << " by " << transaction.who;
  return line.str();
}

namespace {

history_step step_of(const std::string& word) {
  history_step step;
  const std::size_t end = word.find('='), at = std::min(word.find('@'), end);
  step.key = word.substr(1, at - 1);
  if (at < end) step.path = word.substr(at + 1, end - at - 1);
  std::istringstream numbers(word.substr(end + 1));
  std::string number;
  while (std::getline(numbers, number, ',')) step.list.push_back(std::stoull(number));
  if (word[0] == 'a') {
    step.what = history_step::kind::append;
    step.element = step.list.at(0);
    step.list.clear();
  }
  return step;
}

}  // namespace

history_transaction transaction_of(const std::string& line) {
  history_transaction made;
  std::istringstream words(line);
  char dash = 0;
  words >> made.begun >> dash >> made.ended;
  std::string word;
  while (words >> word && word != "by") {
    if (word == "!") {
      made.end = history_transaction::outcome::aborted;
    } else if (word == "?") {
      made.end = history_transaction::outcome::unknown;
      made.ended = history_transaction::never;
    } else {
      made.steps.push_back(step_of(word));
    }
  }
  std::getline(words >> std::ws, made.who);
  return made;
}
