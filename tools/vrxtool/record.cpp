// vrxtool record: binary records, which do not say themselves what they are made of.

#include "tools/vrxtool/command_line.h"
#include "tools/vrxtool/failure.h"
#include "tools/vrxtool/input.h"
#include "tools/vrxtool/json.h"
#include "tools/vrxtool/text.h"
#include "tools/vrxtool/tool.h"

#include <vrxutil/binary.h>

#include <array>
#include <charconv>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vrxtool {

namespace {

/// Longer ones are a slip of the hand.
constexpr std::uint64_t kLongestRecord = 256UL << 20;

struct Arguments {
  std::string file;
  std::string fields;
  std::string order = "little";
  unsigned long skip = 0;
  bool json = false;
};

/// A part of a record: a number, or `size` bytes of text or of anything.
struct Field {
  enum class Kind { number4, number2, number1, text, bytes };

  Kind kind;
  int size;
};

[[noreturn]] void refuse(std::string_view field) {
  throw Failure("no field: " + std::string(field) +
                "; fields are l, s, c, and Nt or Nb with a number N of bytes");
}

Field withoutCount(char type, std::string_view text) {
  switch (type) {
    case 'l':
      return {.kind = Field::Kind::number4, .size = 4};
    case 's':
      return {.kind = Field::Kind::number2, .size = 2};
    case 'c':
      return {.kind = Field::Kind::number1, .size = 1};
    default:
      refuse(text);
  }
}

Field fieldOf(std::string_view text) {
  if (text.size() == 1) return withoutCount(text.front(), text);
  int count = 0;
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
  bool const hasCount = error == std::errc() && count > 0;
  std::string_view const type = text.substr(static_cast<std::size_t>(end - text.data()));
  if (hasCount && type == "t") return {.kind = Field::Kind::text, .size = count};
  if (hasCount && type == "b") return {.kind = Field::Kind::bytes, .size = count};
  refuse(text);
}

std::vector<Field> fieldsOf(std::string_view list) {
  std::vector<Field> fields;
  while (true) {
    std::size_t const comma = list.find(',');
    fields.push_back(fieldOf(list.substr(0, comma)));
    if (comma == std::string_view::npos) return fields;
    list.remove_prefix(comma + 1);
  }
}

std::size_t sizeOf(std::vector<Field> const& fields) {
  std::uint64_t size = 0;
  for (Field const& field : fields) size += static_cast<std::uint64_t>(field.size);
  if (size > kLongestRecord) throw Failure("a record of more than 256 MiB");
  return static_cast<std::size_t>(size);
}

std::string hexadecimal(AnObjectBuffer<unsigned char> const& bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  for (char const byte : bytes.cpp_str()) {
    auto const value = static_cast<unsigned char>(byte);
    text += kDigits[value >> 4];
    text += kDigits[value & 0xF];
  }
  return text;
}

Json readField(ABinaryStream& stream, Field const& field) {
  switch (field.kind) {
    case Field::Kind::number4:
      return stream.readLong();
    case Field::Kind::number2:
      return stream.readShort();
    case Field::Kind::number1:
      return static_cast<unsigned char>(stream.readChar());
    case Field::Kind::text: {
      std::string text;
      stream.readString(field.size, text);
      return text;
    }
    case Field::Kind::bytes:
      break;
  }
  AnObjectBuffer<unsigned char> bytes(0, nullptr);
  stream.readBuffer(field.size, bytes);
  return hexadecimal(bytes);
}

/// A row of a table: cells are parted by tabs, which no cell has.
std::string rowOf(Json const& record) {
  std::string row;
  for (Json const& cell : record) {
    if (!row.empty() || &cell != &record.front()) row += '\t';
    row += cell.is_string() ? printable(cell.get_ref<std::string const&>(), Backslash::doubled)
                            : cell.dump();
  }
  return row;
}

/// Writes records one by one: there may be very many.
class Table {
public:
  Table(Output& output, bool json) : output_(output), json_(json) {}

  void add(Json const& record) {
    if (json_) {
      output_.write((isEmpty_ ? "[\n  " : ",\n  ") + jsonText(record, -1));
    } else {
      output_.line(rowOf(record));
    }
    isEmpty_ = false;
  }

  void finish() {
    if (json_) output_.write(isEmpty_ ? "[]\n" : "\n]\n");
  }

private:
  Output& output_;
  bool json_;
  bool isEmpty_ = true;
};

void skip(Input& input, std::uint64_t count) {
  std::array<char, 65536> block;
  std::uint64_t left = count;
  while (left > 0) {
    auto const size = static_cast<std::size_t>(std::min<std::uint64_t>(left, block.size()));
    if (input.readFully(block.data(), size) < size) {
      throw Failure(input.title() + ": has fewer than " + std::to_string(count) + " bytes");
    }
    left -= size;
  }
}

int dump(Tool& tool, Arguments const& arguments) {
  std::vector<Field> const fields = fieldsOf(arguments.fields);
  std::string bytes(sizeOf(fields), '\0');
  Input input(arguments.file);
  skip(input, arguments.skip);
  Table table(tool.output, arguments.json);
  std::uint64_t offset = arguments.skip;
  while (std::size_t const size = input.readFully(bytes.data(), bytes.size())) {
    if (size < bytes.size()) {
      table.finish();
      throw Failure(input.title() + ": the record at byte " + std::to_string(offset) +
                    " is cut: " + std::to_string(bytes.size() - size) + " bytes are missing");
    }
    auto* const start = reinterpret_cast<unsigned char*>(bytes.data());
    ABinaryStream stream(start, size, arguments.order == "little");
    Json record = Json::array();
    for (Field const& field : fields) record.push_back(readField(stream, field));
    table.add(record);
    offset += size;
  }
  table.finish();
  return yes;
}

constexpr CommandText kDump{
    "dump", "Show binary records as a table",
    "FIELDS are parted by commas, one after the other as in the record.\n"
    "\n"
    "Fields:\n"
    "  l    a number of four bytes\n"
    "  s    a number of two bytes\n"
    "  c    a byte\n"
    "  10t  a text in a field of ten bytes, filled with NUL\n"
    "  10b  ten bytes, shown in hexadecimal\n"
    "\n"
    "Numbers have no sign. A record is a line, its fields parted by tabs; in texts\n"
    "\\ is doubled, and control characters and what is not UTF-8 are escaped. The file\n"
    "may hold any number of records; one that is cut at its end is a failure. With\n"
    "--json, bytes of texts that are not UTF-8 become U+FFFD.",
    "vrxtool record dump jobs.bin --fields l,s,c,10t --order big"};

}  // namespace

void addRecordCommands(CommandLine& line, Tool& tool) {
  Actions<Arguments> const does(tool);
  Arguments& a = does.arguments();
  line.family("record", "Binary records")
      .command(kDump)
      .argument("FILE", a.file, "What is read")
      .requiredOption("--fields", "FIELDS", a.fields, "What a record is made of")
      .option("--order", "ORDER", a.order, {"little", "big"},
              "The byte order: little (else) or big")
      .option("--skip", "BYTES", a.skip, 0, ~0UL, "Leave out what comes before the records")
      .flag("--json", a.json, "An array of records, each an array of fields")
      .action(does(dump));
}

}  // namespace vrxtool
