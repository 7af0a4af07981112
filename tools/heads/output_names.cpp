// output_names.cpp - the words, the most telling first.
#include "tools/heads/output_names.h"

#include <cctype>

#include "tools/common/text.h"

namespace olvex_tools {

namespace {

struct Word {
  const char* word;
  bool begins;  // only at the beginning of a word, as it is part of others
  NamedContents contents;
};

const Word kWords[] = {{"landm", false, NamedContents::kPoints},
                       {"keypoint", false, NamedContents::kPoints},
                       {"kps", true, NamedContents::kPoints},
                       {"kpt", true, NamedContents::kPoints},
                       {"centerness", false, NamedContents::kCentreness},
                       {"centreness", false, NamedContents::kCentreness},
                       {"ctr", true, NamedContents::kCentreness},
                       {"score", false, NamedContents::kScores},
                       {"class", false, NamedContents::kScores},
                       {"conf", true, NamedContents::kScores},
                       {"cls", true, NamedContents::kScores},
                       {"prob", true, NamedContents::kScores},
                       {"logit", true, NamedContents::kScores},
                       {"label", true, NamedContents::kScores},
                       {"box", false, NamedContents::kBoxes},
                       {"loc", true, NamedContents::kBoxes},
                       {"reg", true, NamedContents::kBoxes},
                       {"coord", true, NamedContents::kBoxes},
                       {"ltrb", true, NamedContents::kBoxes},
                       {"offset", true, NamedContents::kBoxes},
                       {"delta", true, NamedContents::kBoxes}};

bool holds(const std::string& name, const Word& word) {
  const std::string text = word.word;
  for (std::size_t at = name.find(text); at != std::string::npos; at = name.find(text, at + 1)) {
    if (!word.begins || at == 0 || std::isalpha(static_cast<unsigned char>(name[at - 1])) == 0) {
      return true;
    }
  }
  return false;
}

}  // namespace

NamedContents contents_by_name(const std::string& output) {
  const std::string name = in_lower_case(output);
  for (const Word& word : kWords) {
    if (holds(name, word)) {
      return word.contents;
    }
  }
  return NamedContents::kUnknown;
}

}  // namespace olvex_tools
