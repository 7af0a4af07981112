// network_metadata.h - what exporters write into a network's metadata: class names, sizes, mean and scale.
#ifndef TOOLS_HEADS_NETWORK_METADATA_H
#define TOOLS_HEADS_NETWORK_METADATA_H

#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "tools/heads/conclude_head.h"

namespace olvex_tools {

// The value of the first entry that has one of these keys, in lower case; *used gets its key as it is written.
std::optional<std::string> metadata_entry(const NetworkGraph& network,
                                          std::initializer_list<const char*> keys,
                                          std::string* used);

// By class id: a dictionary of numbers and names, or a list; none when there is no such entry.
std::vector<std::string> class_names_in_metadata(const NetworkGraph& network);

// Mean, scale, colour order and resize: the usual ones of the head's family, or what the metadata says. Adds
// a fact for each. In preprocessing.cpp.
void conclude_preprocessing(const HeadQuestion& question, HeadReading* reading);

}  // namespace olvex_tools

#endif  // TOOLS_HEADS_NETWORK_METADATA_H
