#include "tools/where_clause.h"

#include <array>
#include <cctype>
#include <optional>
#include <vector>

#include "tools/Invocation.h"

namespace tarns {

namespace {

using Element = TarnQueryElement;

struct Operator {
  std::string_view word;
  Element::OperatorType op;
};

constexpr std::array<Operator, 8> kOperators{{{"<", Element::Less},
                                              {">", Element::Greater},
                                              {"=", Element::Equal},
                                              {"!=", Element::NotEqual},
                                              {">=", Element::GreaterOrEqual},
                                              {"<=", Element::LessOrEqual},
                                              {"starts", Element::StartsWith},
                                              {"contains", Element::Contains}}};

struct Word {
  std::string text;
  bool isQuoted;
};

bool IsBlank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// Reads a quoted word, `at` being behind its first mark.
std::string ReadQuoted(std::string_view text, std::size_t& at) {
  std::string word;
  for (; at < text.size(); ++at) {
    if (text[at] == '"') return ++at, word;
    if (text[at] == '\\' && at + 1 < text.size()) ++at;
    word += text[at];
  }
  throw UsageError{"A condition lacks a closing quotation mark: " + std::string(text)};
}

std::vector<Word> WordsOf(std::string_view text) {
  std::vector<Word> words;
  for (std::size_t at = 0; at < text.size();) {
    if (IsBlank(text[at])) {
      ++at;
    } else if (text[at] == '"') {
      words.push_back({ReadQuoted(text, ++at), true});
    } else {
      const std::size_t from = at;
      while (at < text.size() && !IsBlank(text[at])) ++at;
      words.push_back({std::string(text.substr(from, at - from)), false});
    }
  }
  return words;
}

Element::OperatorType OperatorOf(const Word& word) {
  for (const Operator& known : kOperators) {
    if (!word.isQuoted && word.text == known.word) return known.op;
  }
  throw UsageError{"\"" + word.text +
                   "\" is no operator: there are < > = != >= <= starts and contains."};
}

Element::LogicType LogicOf(const Word& word) {
  if (!word.isQuoted && word.text == "and") return Element::And;
  if (!word.isQuoted && word.text == "or") return Element::Or;
  throw UsageError{"\"and\" or \"or\" is expected between two conditions, not \"" + word.text +
                   "\"."};
}

std::string Written(std::string_view word) {
  const bool isPlain = !word.empty() && word.find_first_of(" \t\n\v\f\r\"\\") == word.npos;
  if (isPlain) return std::string(word);
  std::string written = "\"";
  for (const char c : word) {
    if (c == '"' || c == '\\') written += '\\';
    written += c;
  }
  return written += '"';
}

std::string OperatorText(std::uint32_t op) {
  for (const Operator& known : kOperators) {
    if (known.op == op) return std::string(known.word);
  }
  return std::to_string(op);
}

}  // namespace

xcptref<TarnQuery> ParseWhere(std::string_view text) {
  const std::vector<Word> words = WordsOf(text);
  xcptref<TarnQuery> query = TarnQuery::Create();
  for (std::size_t at = 0;; ++at) {
    if (words.size() < at + 3) {
      throw UsageError{
          "A condition is a path, an operator and a text, as in \"Section = libs\"; "
          "here it ends too early: " +
          std::string(text)};
    }
    const auto element = Element::Create(words[at].text.c_str(), OperatorOf(words[at + 1]),
                                         words[at + 2].text.c_str());
    at += 3;
    const bool isLast = at == words.size();
    if (!isLast) modify(element)->setLogic(LogicOf(words[at]));
    modify(query)->addElement(element);
    if (isLast) return query;
  }
}

std::string WhereOf(const TarnQuery& query) {
  std::string text;
  std::optional<Element::LogicType> logic;
  query.visitElements([&](const Element& element) {
    if (logic) text += *logic == Element::And ? " and " : *logic == Element::Or ? " or " : " ? ";
    text += Written(element.getElementName().view());
    text += ' ';
    text += OperatorText(element.getOperator());
    text += ' ';
    text += Written(element.getQueryValue().view());
    logic = element.getLogic();
  });
  return text;
}

}  // namespace tarns
