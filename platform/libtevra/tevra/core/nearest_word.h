#ifndef TEVRA_CORE_NEAREST_WORD_H_
#define TEVRA_CORE_NEAREST_WORD_H_

#include <string>
#include <string_view>
#include <vector>

namespace tevra::core {

// Which of the `known` words a person probably meant by `word`: the one with the fewest letters
// added, left out, replaced or swapped with their neighbours, the first of several. Empty when more
// than a third of the letters would have to change.
std::string NearestWord(std::string_view word, const std::vector<std::string>& known);

// "; did you mean "list"?" as the end of a message; empty when no known word is near.
std::string DidYouMean(std::string_view word, const std::vector<std::string>& known);

}  // namespace tevra::core

#endif  // TEVRA_CORE_NEAREST_WORD_H_
