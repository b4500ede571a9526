#pragma once

// The committed firmware files that no read accepts, with the reason each read fails with.

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace palimbo::testing {

struct HostileFile {
  std::string Path;
  std::string Reason;
};

/// The folder of the committed files.
inline std::filesystem::path HostileCorpusDir() {
  return std::filesystem::path(PALIMBO_TESTS_DIR) / "image" / "corpus";
}

/// The rows of corpus/reasons.txt: a file name, a tab, the reason.
inline std::vector<HostileFile> HostileCorpus() {
  std::vector<HostileFile> files;
  std::ifstream list(HostileCorpusDir() / "reasons.txt");
  for (std::string line; std::getline(list, line);) {
    const size_t tab = line.find('\t');
    if (line.empty() || line[0] == '#' || tab == std::string::npos) continue;
    files.push_back({(HostileCorpusDir() / line.substr(0, tab)).string(), line.substr(tab + 1)});
  }
  return files;
}

}  // namespace palimbo::testing
