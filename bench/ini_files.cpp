#include "bench/ini_files.h"

#include "bench/data_folder.h"

#include <cstdlib>
#include <fstream>
#include <map>
#include <tuple>

namespace vrxutil::bench {

namespace {

constexpr std::size_t kKeySize = 14;
constexpr std::size_t kValueSize = 24;

std::string digits(std::size_t number, std::size_t count) {
  std::string const text = std::to_string(number);
  return std::string(count - text.size(), '0') + text;
}

std::string padded(std::string text, std::size_t size) {
  text.resize(size, 'x');
  return text;
}

std::vector<std::size_t> numbers(std::size_t count, bool isShuffled) {
  std::vector<std::size_t> numbers(count);
  std::iota(numbers.begin(), numbers.end(), std::size_t{0});
  std::mt19937 random(1);
  if (isShuffled) std::shuffle(numbers.begin(), numbers.end(), random);
  return numbers;
}

void write(IniFile const& file, std::string const& path) {
  std::ofstream stream(path);
  std::size_t const pairsOfSection = file.pairs / file.sections;
  for (std::size_t const section : numbers(file.sections, file.isShuffled)) {
    stream << '[' << file.sectionOf(section * pairsOfSection) << "]\n";
    for (std::size_t const key : numbers(pairsOfSection, file.isShuffled)) {
      std::size_t const pair = section * pairsOfSection + key;
      stream << file.keyOf(pair) << '=' << file.valueOf(pair) << '\n';
    }
  }
  if (!stream.flush()) std::abort();  // a full disk
}

}  // namespace

std::string IniFile::sectionOf(std::size_t pair) const {
  return "section" + digits(pair / (pairs / sections), 6);
}

std::string IniFile::keyOf(std::size_t pair) const {
  return padded("setting" + digits(pair % (pairs / sections), 7), kKeySize);
}

std::string IniFile::valueOf(std::size_t pair) const {
  return padded("/var/lib/value" + std::to_string(pair * 7919 % 1000003), kValueSize);
}

std::string const& IniFile::path() const {
  static std::map<std::tuple<std::size_t, std::size_t, bool>, std::string> paths;
  std::string& path = paths[{pairs, sections, isShuffled}];
  if (path.empty()) {
    path = DataFolder::instance() / ("file" + std::to_string(paths.size()) + ".ini");
    write(*this, path);
  }
  return path;
}

}  // namespace vrxutil::bench
