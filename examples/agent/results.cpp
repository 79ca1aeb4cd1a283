#include "examples/agent/results.h"

#include "examples/agent/checksum.h"
#include "examples/agent/whole_file.h"

#include <vrxutil/file.h>
#include <vrxutil/log.h>
#include <vrxutil/xml.h>

#include <cstdint>
#include <iterator>
#include <optional>
#include <string>
#include <utility>

namespace agent {

namespace {

using Bytes = AnObjectBuffer<unsigned char>;

constexpr wchar_t kGroup[] = L"Agent";

constexpr wchar_t kMark[] = L"VRXR";
constexpr int kMarkSize = 4;
constexpr unsigned short kFormatVersion = 1;
constexpr int kTimeSize = 20;
constexpr unsigned long kHeadSize = kMarkSize + 2 + kTimeSize + 4;
constexpr unsigned long kStatusSize = 1;
constexpr unsigned long kLengthSize = 2;
constexpr unsigned long kChecksumSize = 4;

/// 4,000 bytes of UTF-8 at most, which a short field can count.
constexpr unsigned long kMaxTextLength = 1000;

/// A task with its texts in UTF-8.
struct Entry {
  TaskResult::Status status;
  Bytes texts[3];

  unsigned long sizeInBytes() const {
    unsigned long size = kStatusSize;
    for (Bytes const& text : texts) size += kLengthSize + text.size();
    return size;
  }
};

std::optional<Entry> entryOf(TaskResult const& task) {
  Entry entry{.status = task.status,
              .texts = {Bytes(0, nullptr), Bytes(0, nullptr), Bytes(0, nullptr)}};
  AString texts[] = {task.type, task.path, task.text};
  for (std::size_t i = 0; i < std::size(texts); ++i) {
    texts[i].shrinkTo(kMaxTextLength);
    if (!AnXml::convertUnicodeToUtf8(texts[i], entry.texts[i])) return std::nullopt;
  }
  return entry;
}

/// Over `count` of the bytes from `offset` on, which must be there. The record is
/// big-endian.
ABinaryStream streamOver(Bytes& bytes, unsigned long offset, unsigned long count) {
  // A buffer is written to through getBytes().
  auto* const start = const_cast<unsigned char*>(bytes.getBytes());
  return {start + offset, count, /*littleEndian=*/false};
}

std::uint32_t checksumOf(Bytes const& bytes, unsigned long size) {
  return crc32(ABuffer(size, bytes));
}

void writeEntry(ABinaryStream& stream, Entry const& entry) {
  stream.writeChar(static_cast<char>(entry.status));
  for (Bytes const& text : entry.texts) {
    stream.writeShort(static_cast<unsigned short>(text.size()));
    stream.writeBuffer(text, 0);
  }
}

/// What the record is made of, in bytes.
std::optional<Bytes> encode(Results const& results) {
  std::vector<Entry> entries;
  unsigned long size = kHeadSize + kChecksumSize;
  for (TaskResult const& task : results.tasks) {
    std::optional<Entry> entry = entryOf(task);
    if (!entry) return std::nullopt;
    size += entry->sizeInBytes();
    entries.push_back(*std::move(entry));
  }

  Bytes record(0, nullptr);
  record.allocate(size, nullptr);
  ABinaryStream stream = streamOver(record, 0, size);
  stream.writeString(kMarkSize, kMark);
  stream.writeShort(kFormatVersion);
  stream.writeString(kTimeSize, results.time);
  stream.writeLong(entries.size());
  for (Entry const& entry : entries) writeEntry(stream, entry);
  stream.writeLong(checksumOf(record, size - kChecksumSize));
  if (stream.pastEndError()) return std::nullopt;
  return record;
}

bool refuse(wchar_t const* reason) {
  logError(kGroup, AString(L"no record of results: ") << reason);
  return false;
}

bool isIntact(Bytes& bytes) {
  if (bytes.size() < kHeadSize + kChecksumSize) return refuse(L"too short");
  unsigned long const size = bytes.size() - kChecksumSize;
  ABinaryStream stream = streamOver(bytes, size, kChecksumSize);
  return stream.readLong() == checksumOf(bytes, size) || refuse(L"the checksum is another");
}

bool isStatus(char c) {
  using Status = TaskResult::Status;
  auto const status = static_cast<Status>(c);
  return status == Status::done || status == Status::failed || status == Status::disabled;
}

/// False for text that is no UTF-8, which is logged; beyond the end of the stream it
/// is empty.
bool readText(ABinaryStream& stream, AString* text) {
  std::string utf8;
  stream.readString(stream.readShort(), utf8);
  return AnXml::convertUtf8ToUnicode(utf8.c_str(), *text);
}

bool readEntry(ABinaryStream& stream, Results* results) {
  char const status = stream.readChar();
  if (!isStatus(status)) return refuse(L"a task has no status");
  TaskResult task{.status = static_cast<TaskResult::Status>(status), .type{}, .path{}, .text{}};
  if (!readText(stream, &task.type) || !readText(stream, &task.path) ||
      !readText(stream, &task.text)) {
    return false;
  }
  results->tasks.push_back(task);
  return true;
}

bool decode(Bytes& bytes, Results* results) {
  if (!isIntact(bytes)) return false;
  ABinaryStream stream = streamOver(bytes, 0, bytes.size() - kChecksumSize);
  AString mark;
  stream.readString(kMarkSize, mark);
  if (mark.const_cpp_str() != kMark) return refuse(L"another kind of file");
  if (stream.readShort() != kFormatVersion) return refuse(L"another version of the format");
  stream.readString(kTimeSize, results->time);
  // A count that is too great ends with the bytes: what lies beyond has no status.
  for (unsigned long count = stream.readLong(); count > 0; --count) {
    if (!readEntry(stream, results)) return false;
  }
  return !stream.pastEndError() && (stream.atEnd() || refuse(L"something follows"));
}

}  // namespace

AString resultsFileName() { return APath(AFiler::getOxaDataPath(), L"results.bin"); }

bool saveResults(Results const& results) {
  ADetailTrace const trace(kGroup, L"saveResults");
  std::optional<Bytes> const record = encode(results);
  return record && writeWholeFile(resultsFileName(), *record);
}

bool loadResults(Results* results, AnObjectBuffer<unsigned char>* bytes) {
  ADetailTrace const trace(kGroup, L"loadResults");
  Results read;
  if (!readWholeFile(resultsFileName(), bytes) || !decode(*bytes, &read)) return false;
  *results = std::move(read);
  return true;
}

}  // namespace agent
