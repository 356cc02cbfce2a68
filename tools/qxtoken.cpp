// qxtoken: checks, shows and reformats documents in the token text format.
//
//   qxtoken check FILE          reads the whole document; reports the first error
//   qxtoken tree FILE           prints its structure, indented
//   qxtoken fmt FILE [-o OUT]   writes it back in the canonical layout
//
// A document is read as a tree: each item is a token (a word of at most four characters) and one
// value, which is a word, a quoted string, a "$" block, or a block in braces holding further
// items. Comments ("#" to the end of the line) may stand between any two tokens. The canonical
// layout is the one the library's writers produce: one item per line, one blank of indentation
// per level, the closing brace one blank further in than its opening line, CR LF line ends.
// Comments are kept, each on a line of its own in front of the item that follows it; a "$"
// block is copied byte for byte.
//
// The file is read with stdio into memory and parsed through a TQXstrstream with the library's
// token reader.
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "QXException.h"
#include "QXStrStream.h"
#include "QXToken.h"

namespace {

constexpr int kExitBadInput = 1;
constexpr int kExitUsage = 2;
// Deeper nesting than this is reported instead of parsed, so that no input exhausts the stack.
constexpr int kMaxDepth = 1000;

const char kUsage[] =
    "usage: qxtoken check FILE\n"
    "       qxtoken tree FILE\n"
    "       qxtoken fmt FILE [-o OUT]\n"
    "\n"
    "Reads a document in the token text format: items of a token (up to four characters) and a\n"
    "value (a word, a \"quoted string\", a $ block, or a { block } of further items), with\n"
    "# comments between tokens.\n"
    "\n"
    "  check  reads the whole document and reports the first error with its byte offset and\n"
    "         line; exit status 0 when the document is well formed\n"
    "  tree   prints the structure, one item per line, indented by nesting\n"
    "  fmt    writes the document in the canonical layout to standard output, or to OUT with\n"
    "         -o: one item per line, one blank per level, closing braces one blank further in\n"
    "         than their opening line, CR LF line ends; comments are kept on lines of their own\n"
    "\n"
    "Exit status: 0 success, 1 unreadable or malformed input, 2 usage error.\n";

struct Item {
  enum Kind { kWord, kString, kSkipped, kBlock } kind = kWord;
  std::string key;
  std::string value;                  // a word, a string with its quotes and escapes, a $ block
  std::vector<std::string> comments;  // comment lines in front of the item
  std::vector<Item> children;
  std::vector<std::string> closing;  // comment lines in front of a block's closing brace
  int32_t line = 0;
};

struct Document {
  std::vector<Item> items;
  std::vector<std::string> trailing;  // comments after the last item
};

// A parse error: where and what.
struct ParseError {
  int32_t offset;
  std::string message;
};

class Parser {
 public:
  // `bytes` ends in an extra zero that is not part of the document.
  explicit Parser(std::vector<char>& bytes)
      : bytes_(bytes), in_(bytes.data(), int32_t(bytes.size() - 1), kQXStreamReadable) {
    QXToken::AttachState(in_);
  }

  Document Parse() {
    Document doc;
    std::vector<std::string> comments;
    for (;;) {
      if (!SkipSpaceAndComments(comments)) break;
      Item item = ParseItem(comments, 0);
      doc.items.push_back(std::move(item));
    }
    doc.trailing = std::move(comments);
    return doc;
  }

  int32_t LineOf(int32_t offset) const {
    int32_t line = 1;
    for (int32_t i = 0; i < offset && i + 1 < int32_t(bytes_.size()); ++i) {
      if (bytes_[i] == '\n' || (bytes_[i] == '\r' && bytes_[i + 1] != '\n')) ++line;
    }
    return line;
  }

 private:
  enum class Token { kWord, kString, kSkipped, kOpen, kClose };

  [[noreturn]] void Fail(int32_t offset, const std::string& message) {
    throw ParseError{offset, message};
  }

  // Skips white space and comments, collecting the comments; false at the end of the file.
  bool SkipSpaceAndComments(std::vector<std::string>& comments) {
    for (;;) {
      char c = 0;
      in_.GetChar(c);
      if (in_.state != 0) return false;
      if (c == ' ' || c == '\t' || c == '\r' || c == '\n') continue;
      if (c != '#') {
        in_.PutBack(c);
        return true;
      }
      std::string comment(1, '#');
      for (;;) {
        in_.GetChar(c);
        if (in_.state != 0) {
          // The token reader needs a line end behind a comment too.
          Fail(in_.Tell(), "the file ends inside a comment (a line end must follow it)");
        }
        if (c == '\r' || c == '\n') break;
        comment += c;
      }
      comments.push_back(comment);
    }
  }

  // The next token through the library's reader; `start` gets its offset.
  Token Next(std::string& text, int32_t& start) {
    start = in_.Tell();
    char buffer[kQXTokenBufferSize];
    TQXTokenInfo info{};
    const char first = bytes_[size_t(start)];
    const uint32_t code = QXToken::ReadToken(in_, buffer, true, &info);
    if (code == kQXErrEndOfFile) {
      if (first == '"') Fail(start, "the file ends inside a string");
      if (first == '$') Fail(start, "a $ block runs past the end of the file");
      Fail(start, "the file ends inside a word (a document must end in white space)");
    }
    if (code != 0) Fail(start, "malformed length of a $ block");
    text = buffer;
    const int32_t consumed = in_.Tell() - start;
    switch (info.kind) {
      case TQXTokenKind::kOpen:
        return Token::kOpen;
      case TQXTokenKind::kClose:
        return Token::kClose;
      case TQXTokenKind::kSkipped:
        text.assign(bytes_.data() + start, size_t(consumed));
        return Token::kSkipped;
      case TQXTokenKind::kString:
        // The reader keeps 255 characters: a longer string is taken from the bytes themselves.
        if (text.size() >= size_t(kQXTokenBufferSize - 1)) {
          text.assign(bytes_.data() + start, size_t(consumed));
        }
        return Token::kString;
      case TQXTokenKind::kWord:
        if (consumed > kQXTokenBufferSize - 1)
          Fail(start, "a word of more than 255 characters, which the reader cuts");
        if (text.size() < size_t(consumed)) Fail(start, "a zero byte inside a word");
        return Token::kWord;
    }
    return Token::kWord;
  }

  Item ParseItem(std::vector<std::string>& comments, int depth) {
    Item item;
    item.comments = std::move(comments);
    comments.clear();
    int32_t start = 0;
    switch (Next(item.key, start)) {
      case Token::kWord:
        break;
      case Token::kOpen:
        Fail(start, "\"{\" where a token was expected");
      case Token::kClose:
        Fail(start, "\"}\" without a block to close");
      case Token::kString:
        Fail(start, "a string where a token was expected");
      case Token::kSkipped:
        Fail(start, "a $ block where a token was expected");
    }
    item.line = LineOf(start);
    if (item.key.empty()) Fail(start, "an empty token");
    if (item.key.size() > 4) Fail(start, "a token of more than four characters: " + item.key);

    // Comments between the token and its value go in front of the item.
    if (!SkipSpaceAndComments(item.comments))
      Fail(in_.Tell(), "the file ends where the value of " + item.key + " was expected");
    switch (Next(item.value, start)) {
      case Token::kWord:
        item.kind = Item::kWord;
        return item;
      case Token::kString:
        item.kind = Item::kString;
        return item;
      case Token::kSkipped:
        item.kind = Item::kSkipped;
        return item;
      case Token::kClose:
        Fail(start, "\"}\" where the value of " + item.key + " was expected");
      case Token::kOpen:
        break;
    }
    item.kind = Item::kBlock;
    item.value.clear();
    if (depth >= kMaxDepth) Fail(start, "blocks nested more than 1000 deep");
    const int32_t open = start;
    for (;;) {
      if (!SkipSpaceAndComments(comments)) {
        Fail(in_.Tell(), "the file ends inside the block " + item.key + " opened on line " +
                             std::to_string(LineOf(open)));
      }
      int32_t at = in_.Tell();
      if (bytes_[size_t(at)] == '}') {
        std::string brace;
        Next(brace, at);
        item.closing = std::move(comments);
        comments.clear();
        return item;
      }
      item.children.push_back(ParseItem(comments, depth + 1));
    }
  }

  const std::vector<char>& bytes_;
  TQXstrstream in_;
};

// ---- Output ----------------------------------------------------------------------------------

void WriteComments(TQXiostream& out, const std::vector<std::string>& comments) {
  for (const std::string& c : comments) {
    QXToken::IndentToken(out);
    out.Write(c.data(), int32_t(c.size()));
    out << endl;
  }
}

void WriteItem(TQXiostream& out, const Item& item) {
  WriteComments(out, item.comments);
  QXToken::IndentToken(out);
  out.Write(item.key.data(), int32_t(item.key.size()));
  if (item.kind != Item::kBlock) {
    out << ' ';
    out.Write(item.value.data(), int32_t(item.value.size()));
    out << endl;
    return;
  }
  // As BeginBlock writes it, with the token's text as it stands.
  out << " {" << endl;
  QXTokenState& st = QXToken::State(out);
  ++st.depth;
  for (const Item& child : item.children)
    WriteItem(out, child);
  WriteComments(out, item.closing);
  QXToken::EndBlock(out);
}

void PrintTree(const std::vector<Item>& items, int depth) {
  for (const Item& item : items) {
    std::printf("%*s%s", 2 * depth, "", item.key.c_str());
    switch (item.kind) {
      case Item::kWord:
      case Item::kString:
        std::printf(" = %s\n", item.value.c_str());
        break;
      case Item::kSkipped:
        std::printf(" = $ block of %zu bytes\n", item.value.size());
        break;
      case Item::kBlock:
        std::printf(" { %zu item%s, line %" PRId32 "\n", item.children.size(),
                    item.children.size() == 1 ? "" : "s", item.line);
        PrintTree(item.children, depth + 1);
        std::printf("%*s}\n", 2 * depth, "");
        break;
    }
  }
}

bool ReadFile(const char* path, std::vector<char>& bytes) {
  std::FILE* f = std::fopen(path, "rb");
  if (f == nullptr) {
    std::fprintf(stderr, "qxtoken: cannot open %s: %s\n", path, std::strerror(errno));
    return false;
  }
  char chunk[65536];
  size_t n;
  while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0) {
    bytes.insert(bytes.end(), chunk, chunk + n);
    if (bytes.size() > size_t(INT32_MAX) - 1) {
      std::fprintf(stderr, "qxtoken: %s: the file is larger than 2 GiB\n", path);
      std::fclose(f);
      return false;
    }
  }
  const bool failed = std::ferror(f) != 0;
  std::fclose(f);
  if (failed) {
    std::fprintf(stderr, "qxtoken: cannot read %s\n", path);
    return false;
  }
  // A zero behind the bytes: a memory stream of size 0 reads its buffer as a C string.
  bytes.push_back(0);
  return true;
}

int Usage(const char* problem) {
  if (problem != nullptr) std::fprintf(stderr, "qxtoken: %s\n", problem);
  std::fputs(kUsage, stderr);
  return kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  for (const std::string& a : args) {
    if (a == "--help" || a == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    }
  }
  if (args.empty()) return Usage("no command given");
  const std::string command = args[0];
  if (command != "check" && command != "tree" && command != "fmt")
    return Usage(("unknown command: " + command).c_str());
  std::string file, output;
  for (size_t i = 1; i < args.size(); ++i) {
    if (args[i] == "-o" && command == "fmt") {
      if (i + 1 == args.size()) return Usage("-o needs a file name");
      output = args[++i];
    } else if (file.empty() && (args[i].empty() || args[i][0] != '-' || args[i] == "-")) {
      file = args[i];
    } else {
      return Usage(("unexpected argument: " + args[i]).c_str());
    }
  }
  if (file.empty()) return Usage("no input file given");

  std::vector<char> bytes;
  if (!ReadFile(file.c_str(), bytes)) return kExitBadInput;
  Parser parser(bytes);
  Document doc;
  try {
    doc = parser.Parse();
  } catch (const ParseError& e) {
    std::fprintf(stderr, "qxtoken: %s:%" PRId32 ": byte %" PRId32 ": %s\n", file.c_str(),
                 parser.LineOf(e.offset), e.offset, e.message.c_str());
    return kExitBadInput;
  } catch (const TQXException& e) {
    std::fprintf(stderr, "qxtoken: %s: read failed with code 0x%08" PRIX32 "\n", file.c_str(),
                 e.code);
    return kExitBadInput;
  }

  if (command == "check") {
    std::printf("%s: well formed, %zu top-level item%s\n", file.c_str(), doc.items.size(),
                doc.items.size() == 1 ? "" : "s");
    return 0;
  }
  if (command == "tree") {
    PrintTree(doc.items, 0);
    return 0;
  }
  TQXstrstream out;
  QXToken::AttachState(out);
  for (const Item& item : doc.items)
    WriteItem(out, item);
  WriteComments(out, doc.trailing);
  if ((out.state & kQXStreamFailed) != 0) {
    std::fprintf(stderr, "qxtoken: out of memory while formatting\n");
    return kExitBadInput;
  }
  std::FILE* f = output.empty() ? stdout : std::fopen(output.c_str(), "wb");
  if (f == nullptr) {
    std::fprintf(stderr, "qxtoken: cannot create %s: %s\n", output.c_str(), std::strerror(errno));
    return kExitBadInput;
  }
  const size_t n = size_t(out.Tell());
  const bool ok = std::fwrite(out.buffer, 1, n, f) == n;
  const bool closed = output.empty() ? std::fflush(f) == 0 : std::fclose(f) == 0;
  if (!ok || !closed) {
    std::fprintf(stderr, "qxtoken: cannot write %s\n",
                 output.empty() ? "the output" : output.c_str());
    return kExitBadInput;
  }
  return 0;
}
