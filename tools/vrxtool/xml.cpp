// vrxtool xml: documents, encrypted or not.

#include "tools/vrxtool/command_line.h"
#include "tools/vrxtool/failure.h"
#include "tools/vrxtool/input.h"
#include "tools/vrxtool/key.h"
#include "tools/vrxtool/text.h"
#include "tools/vrxtool/tool.h"

#include <vrxcomn/xml_parser.h>
#include <vrxutil/system.h>
#include <vrxutil/xml.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <sys/stat.h>

namespace vrxtool {

namespace {

using AdvXMLParser::UTF_ENCODINGS;

struct Arguments {
  std::string file;
  std::string path;
  std::string attribute;
  std::string value;
  std::optional<std::string> someAttribute;
  std::optional<std::string> root;
  std::optional<std::string> output;
};

/// Replaces the name that the library knows a file by.
std::string withTitle(std::string text, std::string const& path, std::string const& title) {
  std::size_t const place = text.find(path);
  return place == std::string::npos ? text : text.replace(place, path.size(), title);
}

std::string lastXmlError() { return utf8(AdvXMLParser::GetLastXmlErrorMessage()); }

// ---- reading

/// Whether the last file that was read was an encrypted one.
bool wasDecrypted = false;

bool decrypt(std::string const& in, std::string& out) {
  wasDecrypted = true;
  return ACryptWrap::decrypt_data(in, out);
}

/// What a file holds, decrypted.
struct FileText {
  std::wstring text;
  bool isEncrypted;
};

/// A file that is no text.
class NoText : public Failure {
public:
  using Failure::Failure;
};

[[noreturn]] void throwReadError(std::string const& path, std::string const& file) {
  std::string const message = withTitle(lastXmlError(), path, titleOf(file));
  if (wasDecrypted && !hasKey()) throw noKey();
  // The library has one answer for all that goes wrong with bytes that could be read.
  bool const isNoText = message.starts_with("cannot read " + titleOf(file) + ": invalid UTF-");
  if (isNoText) throw NoText(message);
  throw Failure(message);
}

FileText readText(std::string const& file) {
  MemoryFile const copy(Input(file).readAll());
  FileText result{};
  UTF_ENCODINGS encoding = UTF_ENCODINGS::UTF_8;
  wasDecrypted = false;
  if (AdvXMLParser::ReadBufferFromFileNoExp(wide(copy.path(), "the name"), result.text, encoding,
                                            nullptr, decrypt) < 0) {
    throwReadError(copy.path(), file);
  }
  result.isEncrypted = wasDecrypted;
  return result;
}

/// What is wrong with a document; nothing where it could be loaded and is as asked for.
std::optional<std::string> load(Tool& tool, std::wstring const& text, AnXml& xml,
                                wchar_t const* root = nullptr, wchar_t const* attribute = nullptr,
                                wchar_t const* value = nullptr) {
  // It would end the text before its end.
  if (text.find(L'\0') != std::wstring::npos) return "a NUL character";
  tool.records.clear();
  if (xml.useString(text.c_str(), root, attribute, value)) return std::nullopt;
  return tool.records.reason("Parse failed");
}

/// A document and how it was written.
struct Document {
  FileText text;
  AnXml xml;
};

std::unique_ptr<Document> loadFile(Tool& tool, std::string const& file) {
  auto document = std::make_unique<Document>();
  document->text = readText(file);
  if (std::optional<std::string> const problem = load(tool, document->text.text, document->xml)) {
    throw Failure(titleOf(file) + ": " + *problem);
  }
  return document;
}

// ---- writing

/// The document of `file` as text; it is gone then.
std::wstring takeText(AnXml& xml, std::string const& file, bool indented) {
  std::unique_ptr<AdvXMLParser::Document> const document(xml.relinquishDocument());
  try {
    return document->GenerateXML(indented);
  } catch (AdvXMLParser::ReadWriteException const&) {
    throw Failure(titleOf(file) + ": " + lastXmlError());
  }
}

/// The library knows the target by the name `path`.
[[noreturn]] void throwWriteError(std::string const& path, std::string const& target,
                                  bool encrypted) {
  std::string const reason = lastXmlError();
  if (encrypted && !hasKey()) throw noKey();
  throw Failure(isStandardStream(target) ? withTitle(reason, path, "standard output") : reason);
}

/// Writes text as a file of that kind, to standard output too.
void writeText(Tool& tool, std::string const& target, std::wstring const& text, bool encrypted) {
  if (isStandardStream(target) && !encrypted) return tool.output.write(utf8(text));
  std::optional<ScratchFile> scratch;
  if (isStandardStream(target)) scratch.emplace("");
  std::string const path = scratch ? scratch->path() : target;
  try {
    AdvXMLParser::WriteBufferToFile(wide(path, "the name"), text, UTF_ENCODINGS::UTF_8,
                                    encrypted ? ACryptWrap::encrypt_data : nullptr, nullptr);
  } catch (AdvXMLParser::ReadWriteException const&) {
    throwWriteError(path, target, encrypted);
  }
  if (!scratch) return;
  std::string const bytes = scratch->bytes();
  scratch.reset();
  tool.output.write(bytes);
}

/// The document as it stands, with the declaration and the last line end that it had.
std::wstring textOf(std::string const& file, Document& document) {
  std::wstring const& old = document.text.text;
  std::wstring text;
  bool const isDeclared = old.starts_with(L"<?xml") && old.find_first_of(L" \t\r\n") == 5;
  if (isDeclared) text = L"<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
  text += takeText(document.xml, file, /*indented=*/false);
  if (old.ends_with(L'\n') && !text.ends_with(L'\n')) text += L'\n';
  return text;
}

void writeDocument(Tool& tool, std::string const& file, Document& document) {
  writeText(tool, file, textOf(file, document), document.text.isEncrypted);
}

// ---- paths

/// An element's name and, unless null, the attribute that chooses among those so named,
/// of any value where that is null.
struct Step {
  std::wstring name;
  std::optional<std::wstring> attribute;
  std::optional<std::wstring> value;

  wchar_t const* attributeOrNull() const { return attribute ? attribute->c_str() : nullptr; }

  wchar_t const* valueOrNull() const { return value ? value->c_str() : nullptr; }
};

/// Reads "root/child[attribute=value]/child".
class PathReader {
public:
  explicit PathReader(std::string const& path) : path_(path), rest_(wide(path, "PATH")) {}

  std::vector<Step> read() {
    std::vector<Step> steps;
    do {
      steps.push_back(readStep());
    } while (skip(L'/'));
    if (!rest_.empty()) fail("what follows a ] must be a /");
    return steps;
  }

private:
  Step readStep() {
    Step step;
    step.name = readTo(L"/[");
    if (step.name.empty()) fail("the name of an element is missing");
    if (!skip(L'[')) return step;
    step.attribute = readTo(L"=]");
    if (skip(L'=')) step.value = readValue();
    if (step.attribute->empty() && !step.value) fail("what is to be in the [] is missing");
    if (!skip(L']')) fail("a ] is missing");
    return step;
  }

  std::wstring readValue() {
    for (wchar_t const quote : {L'"', L'\''}) {
      if (!skip(quote)) continue;
      std::wstring value = readTo(std::wstring(1, quote));
      if (!skip(quote)) fail("a quotation mark is missing");
      return value;
    }
    return readTo(L"]");
  }

  std::wstring readTo(std::wstring const& ends) {
    std::wstring part = rest_.substr(0, rest_.find_first_of(ends));
    rest_.erase(0, part.size());
    return part;
  }

  bool skip(wchar_t character) {
    if (!rest_.starts_with(character)) return false;
    rest_.erase(0, 1);
    return true;
  }

  [[noreturn]] void fail(char const* why) const { throw Failure("PATH " + path_ + ": " + why); }

  std::string const& path_;
  std::wstring rest_;
};

bool isRoot(AnXmlNode const& root, Step const& step) {
  if (root.getName().const_cpp_str() != step.name) return false;
  if (!step.attribute) return true;
  AString value;
  return root.tryGetValue(step.attributeOrNull(), &value) &&
         (!step.value || value.const_cpp_str() == *step.value);
}

/// The element that a path leads to; nothing where there is none.
std::optional<AnXmlNode> find(AnXml& xml, std::vector<Step> const& path) {
  AnXmlNode node(&xml);
  if (!isRoot(node, path.front())) return std::nullopt;
  for (std::size_t i = 1; i < path.size(); ++i) {
    Step const& step = path[i];
    if (!node.getChildMove(/*required=*/false, step.name.c_str(), step.attributeOrNull(),
                           step.valueOrNull(), nullptr, nullptr)) {
      return std::nullopt;
    }
  }
  return node;
}

int sayNoElement(Arguments const& arguments) {
  return sayNo(titleOf(arguments.file) + ": no element " + arguments.path);
}

// ---- the commands

int show(Tool& tool, Arguments const& arguments) {
  std::unique_ptr<Document> const document = loadFile(tool, arguments.file);
  tool.output.write(utf8(takeText(document->xml, arguments.file, /*indented=*/true)));
  return yes;
}

int get(Tool& tool, Arguments const& arguments) {
  std::vector<Step> const path = PathReader(arguments.path).read();
  std::wstring const attribute = wide(arguments.someAttribute.value_or(""), "ATTRIBUTE");
  std::unique_ptr<Document> const document = loadFile(tool, arguments.file);
  std::optional<AnXmlNode> const node = find(document->xml, path);
  if (!node) return sayNoElement(arguments);
  AString value;
  if (!node->tryGetValue(attribute.c_str(), &value)) {
    return sayNo(titleOf(arguments.file) + ": no attribute " + utf8(attribute) + " at " +
                 arguments.path);
  }
  tool.output.line(utf8(value.const_cpp_str()));
  return yes;
}

/// The library would delete the child elements.
void refuseTextBesideElements(AnXmlNode const& node, Arguments const& arguments) {
  if (!arguments.attribute.empty()) return;
  AnXmlChildIndex children(&node, nullptr);
  if (!children.moveNext(nullptr, nullptr)) return;
  throw Failure(titleOf(arguments.file) + ": the text of " + arguments.path +
                " would take the place of its child elements");
}

int set(Tool& tool, Arguments const& arguments) {
  std::vector<Step> const path = PathReader(arguments.path).read();
  std::wstring const attribute = wide(arguments.attribute, "ATTRIBUTE");
  std::wstring const value = wide(arguments.value, "VALUE");
  refuseIrregular(arguments.file);
  std::unique_ptr<Document> const document = loadFile(tool, arguments.file);
  std::optional<AnXmlNode> node = find(document->xml, path);
  if (!node) return sayNoElement(arguments);
  refuseTextBesideElements(*node, arguments);

  AString before;
  bool const isChanged =
      !node->tryGetValue(attribute.c_str(), &before) || before.const_cpp_str() != value;
  if (isChanged) {
    node->setValue(attribute.c_str(), value.c_str());
    writeDocument(tool, arguments.file, *document);
  } else if (isStandardStream(arguments.file)) {
    writeText(tool, arguments.file, document->text.text, document->text.isEncrypted);
  }
  tellChange(tool, arguments.file, isChanged);
  return yes;
}

/// The root that is asked for; where none is, the one that is there.
std::optional<std::wstring> rootOf(Tool& tool, Arguments const& arguments,
                                   std::wstring const& text) {
  if (arguments.root) return wide(*arguments.root, "NAME");
  AnXml xml;
  if (load(tool, text, xml)) return std::nullopt;
  return AnXmlNode(&xml).getName().const_cpp_str();
}

int check(Tool& tool, Arguments const& arguments) {
  std::wstring attribute = wide(arguments.someAttribute.value_or(""), "NAME=VALUE");
  std::optional<std::wstring> value;
  if (std::size_t const equals = attribute.find(L'='); equals != std::wstring::npos) {
    value = attribute.substr(equals + 1);
    attribute.erase(equals);
  }
  if (arguments.someAttribute && attribute.empty() && !value) {
    throw Failure("NAME=VALUE is empty");
  }

  std::wstring text;
  try {
    text = readText(arguments.file).text;
  } catch (NoText const& problem) {
    return sayNo(problem.what());
  }
  std::optional<std::wstring> const root = rootOf(tool, arguments, text);
  AnXml xml;
  std::optional<std::string> const problem =
      load(tool, text, xml, root ? root->c_str() : nullptr,
           arguments.someAttribute ? attribute.c_str() : nullptr, value ? value->c_str() : nullptr);
  return problem ? sayNo(titleOf(arguments.file) + ": " + *problem) : yes;
}

/// Where `encrypt` and `decrypt` write to.
std::string const& targetOf(Arguments const& arguments) {
  if (arguments.output) return *arguments.output;
  refuseIrregular(arguments.file);
  return arguments.file;
}

int encrypt(Tool& tool, Arguments const& arguments) {
  std::string const& target = targetOf(arguments);
  writeText(tool, target, loadFile(tool, arguments.file)->text.text, /*encrypted=*/true);
  return yes;
}

int decryptFile(Tool& tool, Arguments const& arguments) {
  std::string const& target = targetOf(arguments);
  FileText const text = readText(arguments.file);
  ::umask(S_IRWXG | S_IRWXO);  // a new file has what was secret
  bool const stays = !text.isEncrypted && !arguments.output && !isStandardStream(target);
  if (!stays) writeText(tool, target, text.text, /*encrypted=*/false);
  return yes;
}

constexpr CommandText kShow{
    "show", "Show a document, decrypted and indented",
    "What is shown is UTF-8 and begins with a declaration, whatever FILE is like.",
    "vrxtool xml show /etc/agent.xml"};

constexpr char kPathText[] =
    "PATH is root/child[attribute=value]/child, from the name of the root element\n"
    "on. Of several children that fit, the first counts. [attribute] asks for the\n"
    "attribute alone, and [=text] for an element's text. A value with a ] in it\n"
    "stands between quotation marks.";

constexpr CommandText kGet{"get", "Show an attribute, or the text, of an element", kPathText,
                           "vrxtool xml get agent.xml 'agent/task[name=backup]' status"};

constexpr CommandText kSet{
    "set", "Set an attribute of an element",
    "Says whether anything changed; where nothing would, FILE is not touched. An\n"
    "encrypted file stays encrypted; lines, indentation and comments of the root element\n"
    "stay. FILE becomes UTF-8 with line feeds; blank lines around the root element go, and\n"
    "what a document type declares is put in its place.\n"
    "An empty ATTRIBUTE ('') means the text of an element without child elements.\n"
    "PATH is as for vrxtool xml get; what it leads to must be there.",
    "vrxtool xml set agent.xml 'agent/task[name=backup]' enabled true"};

constexpr CommandText kCheck{
    "check", "Say whether a document can be read and is what it should be",
    "Without NAME=VALUE's =VALUE any value will do; =VALUE alone asks for the text of\n"
    "the element.",
    "vrxtool xml check agent.xml --root agent --attribute version=1"};

constexpr CommandText kEncrypt{
    "encrypt", "Encrypt a document with the agent's key",
    "The document is encrypted as it stands. One that is encrypted already gets a new\n"
    "encryption. Without -o, FILE itself is replaced.",
    "vrxtool xml encrypt agent.xml"};

constexpr CommandText kDecrypt{"decrypt", "Decrypt a document",
                               "The text is what it was before it was encrypted, in UTF-8. A "
                               "file that is not\nencrypted stays as it is. Without -o, FILE "
                               "itself is replaced. A new OUT\nis for its owner alone.",
                               "vrxtool xml decrypt agent.xml -o -"};

}  // namespace

void addXmlCommands(CommandLine& line, Tool& tool) {
  Actions<Arguments> const does(tool);
  Arguments& a = does.arguments();
  Family family = line.family("xml", "XML documents, encrypted or not");
  family.command(kShow).argument("FILE", a.file, "The document").action(does(show));
  family.command(kGet)
      .argument("FILE", a.file, "The document")
      .argument("PATH", a.path, "The element")
      .optionalArgument("ATTRIBUTE", a.someAttribute, "The attribute; without it, the text")
      .action(does(get));
  family.command(kSet)
      .argument("FILE", a.file, "The document")
      .argument("PATH", a.path, "The element")
      .argument("ATTRIBUTE", a.attribute, "The attribute, which is added where it is missing")
      .argument("VALUE", a.value, "Its new value")
      .action(does(set));
  family.command(kCheck)
      .argument("FILE", a.file, "The document")
      .option("--root", "NAME", a.root, "The root element must have this name")
      .option("--attribute", "NAME=VALUE", a.someAttribute, "It must have this attribute")
      .action(does(check));
  auto const addRewriting = [&](CommandText const& text, int (*command)(Tool&, Arguments const&)) {
    family.command(text)
        .argument("FILE", a.file, "The document")
        .option("-o,--output", "OUT", a.output, "Write to OUT and leave FILE as it is")
        .action(does(command));
  };
  addRewriting(kEncrypt, encrypt);
  addRewriting(kDecrypt, decryptFile);
}

}  // namespace vrxtool
