// QXToken.h: the token text format, the library's structured text for settings and documents.
//
// A document is a tree of items. Each item is a line: indentation, a token, a blank, a value,
// CR LF. A token is a four-character code held in 32 bits, first character in the top byte
// (QX_FOURCC). Values are numbers, points ("10,20"), rectangles ("top,left,bottom,right"),
// quoted strings with backslash escapes, hex data, or a block: "Font {", the content one level
// deeper, and a closing "}" that stands one blank further in than its opening line:
//
//   Font {
//    Name "my name"
//    Size 12
//    }
//
// The functions of namespace QXToken work on any TQXiostream with the text slots (a memory or a
// file stream): writers emit one line each, readers pull tokens with ReadToken and values with
// the stream's typed >> slots.
//
// Per-stream state: the record QXTokenState, attached to a stream as its property "Tokn"
// (kQXTokenStateKey). A stream without the property uses one static default record shared by
// all such streams, so the indentation of one can leak to another; AttachState gives a stream a
// record of its own.
//
// Failure contract. ReadToken returns a code and never throws: 0, or kQXErrEndOfFile when the
// stream ends before the token is complete (a text must therefore end in white space), or
// kQXErrIO for a malformed length of a skipped "$" block. The readers built on it throw
// TQXException: with ReadToken's code, the path ".\Source\Common\QXToken" and a fixed line where
// they must have a token (SkipValue, ExpectOpen, ExpectClose, GetCode, GetBlockText,
// GetHexBlock); FailReadFile (kQXErrIO, no path) for a malformed value, a wrong separator or a
// bad hex digit; GetEndOfFile (kQXErrEndOfFile, no path) when raw characters run out inside the
// long-string, hex, byte and packed readers. Whatever the bytes, no reader reads or writes
// outside its buffers or the stream.
//
// Hex conventions used by the host: a binary block is "$", PutHexLong(n), one separator byte,
// n raw bytes, "$"; text data that a reader must skip without knowing its length is "$",
// "FFFFFFFF", the text, "$" (EndHexBlock). ReadToken skips both kinds as one empty token.
//
// Packed form: 3 bytes become 4 characters in the range "0" (48) to "o" (111). For bytes b0, b1,
// b2 the characters are, each plus 48:
//   c0 = b0 & 63,  c1 = (b0 >> 6) | (b1 & 15) << 2,  c2 = (b1 >> 4) | (b2 & 3) << 4,  c3 = b2 >> 2.
// A last group of one byte is written as c0 c1 (b1 taken as 0), of two bytes as c0 c1 c2. The
// writer's 32-bit state holds the pending bytes: low byte their count (0 to 2), then the bytes.
// The reader (GetPacked) decodes byte k of a group from characters k and k + 1, so it reads
// exactly the characters that the writer wrote for the same number of bytes, in pieces of any
// size: its state holds the position in the group (low byte) and the last character's value
// (next byte). Both states start at 0 (PackInit). CR and LF in front of a character are skipped,
// so packed text may be broken into lines.
#ifndef QXTOKEN_H
#define QXTOKEN_H

#include "QXBase.h"
#include "QXGeometry.h"
#include "QXStrStream.h"
#include "QXStream.h"
#include "QXString.h"

// The property key of the token state: "Tokn".
constexpr uint32_t kQXTokenStateKey = 0x546F6B6E;
// The token of the continuation lines of a hex block: "MORE".
constexpr uint32_t kQXTokenMore = 0x4D4F5245;
// A ReadToken buffer: up to 255 characters and the terminator.
constexpr int32_t kQXTokenBufferSize = 256;
// Bytes per line of PutHexBlock.
constexpr int32_t kQXHexBytesPerLine = 64;

// The per-stream record. Its storage is a stream property (4-byte aligned), or the static default.
struct QXTokenState {
  uint8_t flagA;        // 1; kept for the host, not consulted here
  uint8_t tight;        // non-zero: no blank before "{" nor between a token and a string
  uint8_t indentOn;     // 0: no indentation is written and depth is left alone
  int32_t depth;        // nesting depth, 0 at the start
  uint32_t valueCount;  // values written in the present hex-long run; reset by the caller only
  uint32_t version;     // format version, 1
};

// What ReadToken found, for callers that want more than the text (the qxtoken tool, diagnostics).
enum class TQXTokenKind : uint8_t {
  kWord,     // a word, possibly empty (a blank was met where a token should start)
  kString,   // a quoted string
  kOpen,     // "{"
  kClose,    // "}"
  kSkipped,  // a "$" block, skipped; the text is empty
};
struct TQXTokenInfo {
  TQXTokenKind kind;
  int32_t start;     // stream position of the token's first character (the quote, "$", ...)
  int32_t textFrom;  // where the token's own text begins in the buffer, past kept comments
};

namespace QXToken {

// ---- State ----
// The stream's record, or the shared default when it has none.
QX_EXPORT QXTokenState& State(TQXiostream& stream);
// Gives the stream a record of its own, with the default values, unless it has one; returns it
// (null only when memory ran out, the stream then keeps using the default).
QX_EXPORT QXTokenState* AttachState(TQXiostream& stream);
QX_EXPORT void SetVersion(TQXiostream& stream, uint32_t version);
QX_EXPORT uint32_t GetVersion(TQXiostream& stream);

// ---- Tokens and blocks ----
// The code's bytes from the top: 0 as "'", a blank ends the token, any other byte as it is.
QX_EXPORT void PutToken(TQXiostream& stream, uint32_t token);
// 0x20202020 filled from the top with up to 4 characters of `text`; "'" stands for 0.
QX_EXPORT uint32_t CodeFromText(const char* text);
// One blank per level of depth, when indentOn is set.
QX_EXPORT void IndentToken(TQXiostream& stream);
// Indentation, token, [blank unless tight] "{" CR LF; depth + 1 when indentOn. With wantContext
// the stream's GetContext() is taken before the brace and returned (the caller owns it), so
// that the host can come back to the block; otherwise null.
QX_EXPORT TQXiostreamContext* BeginBlock(TQXiostream& stream, uint32_t token, bool wantContext);
// Indentation, "}" CR LF, then depth - 1 when indentOn: the brace stands at the content's depth.
QX_EXPORT void EndBlock(TQXiostream& stream);

// ---- Value lines: indentation, token, blank, the value by the stream's typed << slot, CR LF ----
QX_EXPORT void PutChar(TQXiostream& stream, uint32_t token, signed char value);  // the raw byte
QX_EXPORT void PutByte(TQXiostream& stream, uint32_t token, uint8_t value);      // the raw byte
QX_EXPORT void PutShort(TQXiostream& stream, uint32_t token, int16_t value);
QX_EXPORT void PutUShort(TQXiostream& stream, uint32_t token, uint16_t value);
QX_EXPORT void PutLong(TQXiostream& stream, uint32_t token, int32_t value);
QX_EXPORT void PutULong(TQXiostream& stream, uint32_t token, uint32_t value);
QX_EXPORT void PutFloat(TQXiostream& stream, uint32_t token, float value);
QX_EXPORT void PutDouble(TQXiostream& stream, uint32_t token, double value);
QX_EXPORT void PutBool(TQXiostream& stream, uint32_t token, bool value);              // 1 or 0
QX_EXPORT void PutPoint(TQXiostream& stream, uint32_t token, const TQXPoint& point);  // h,v
// top,left,bottom,right: not the field order of TQXRect.
QX_EXPORT void PutRect(TQXiostream& stream, uint32_t token, const TQXRect& rect);
// Comma-separated decimals on one line (no value for a count below 1).
QX_EXPORT void PutShorts(TQXiostream& stream, uint32_t token, int32_t count, const int16_t* values);
// Indentation, token, [blank unless tight], the text translated to the stored character set, in
// double quotes with a backslash before each backslash and quote, CR LF. No length limit.
QX_EXPORT void PutString(TQXiostream& stream, uint32_t token, const TQXString& text);
// Indentation, token, blank, the second token's text, CR LF.
QX_EXPORT void PutTokenValue(TQXiostream& stream, uint32_t token, uint32_t value);

// ---- Hex data ----
// Lines of at most 64 bytes as uppercase hex: the first with `token`, the others with "MORE".
// Nothing for a count below 1.
QX_EXPORT void PutHexBlock(TQXiostream& stream, uint32_t token, int32_t count, const void* data);
// 8 uppercase hex digits, high first, no separator.
QX_EXPORT void PutHexLong(TQXiostream& stream, uint32_t value);
// PutHexLong for each value; CR LF after every 16th value counted in State().valueCount, which
// runs on across calls.
QX_EXPORT void PutHexLongs(TQXiostream& stream, int32_t count, const uint32_t* values);
// "$" CR LF.
QX_EXPORT void EndHexBlock(TQXiostream& stream);
// binary: the bytes as they are; else two uppercase hex digits per byte, no line breaks.
QX_EXPORT void PutBytes(TQXiostream& stream, const void* data, int32_t count, bool binary);

// ---- Packed data (format at the top of this file) ----
QX_EXPORT void PackInit(uint32_t& state);
QX_EXPORT void PutPacked(TQXiostream& stream, const void* data, int32_t count, uint32_t& state);
// Writes the pending bytes' characters and clears the state.
QX_EXPORT void PutPackedEnd(TQXiostream& stream, uint32_t& state);
// Reads `count` bytes written by PutPacked and PutPackedEnd; a character outside "0" to "o" is
// FailReadFile, the end of the stream GetEndOfFile.
QX_EXPORT void GetPacked(TQXiostream& stream, void* data, int32_t count, uint32_t& state);

// ---- Reading tokens ----
// Reads the next token into `buffer` (kQXTokenBufferSize bytes, always terminated):
//  - blanks, tabs, CR and LF are skipped;
//  - a double-quoted string, where "\" or byte 1 escapes the next character; keepRaw keeps the
//    quotes and the escapes; up to 255 characters are kept, the rest is read and dropped;
//  - "$": a length in hex; unless it is FFFFFFFF that many bytes and one more are stepped over;
//    then everything up to the next "$". The text is empty;
//  - "#" starts a comment up to CR or LF (kept with keepRaw, with the line end that closes it, so
//    that kept text reads back as the same tokens); then white space and further comments; the
//    character after them is taken as "{", "}" or the start of a word;
//  - "{" and "}" are tokens of their own;
//  - otherwise a word, up to 255 characters kept, ending before tab, CR, LF, "#", "{", "}", a
//    double quote or a blank, which is left in the stream.
// Returns 0, or kQXErrEndOfFile when the stream ends first (inside a word too), or kQXErrIO for a
// bad "$" length. `info`, when given, tells the kind and where the token began.
QX_EXPORT uint32_t ReadToken(TQXiostream& stream, char* buffer, bool keepRaw);
QX_EXPORT uint32_t ReadToken(TQXiostream& stream, char* buffer, bool keepRaw, TQXTokenInfo* info);

// Reads up to the opening quote, then the string without a length limit (escapes as ReadToken),
// translates it from the stored character set and stores it in `target` (cut at its capacity).
QX_EXPORT void GetLongString(TQXiostream& stream, TQXString& target);
// Decodes `count` bytes from the words of a hex block, whose first token has been read: a word,
// then for each further 64 bytes the token "MORE" and a word.
QX_EXPORT void GetHexBlock(TQXiostream& stream, int32_t count, void* data);
// 8 hex digits, first highest; other characters in front of and between them are skipped, but a
// "$" is put back and fails.
QX_EXPORT void ReadHexLong(TQXiostream& stream, uint32_t& out);
// `count` values; *done (if not null) goes up by one for each.
QX_EXPORT void ReadHexLongs(TQXiostream& stream, int32_t count, uint32_t* values, int32_t* done);
// Reads up to and including the next "$".
QX_EXPORT void SkipToDollar(TQXiostream& stream);
// The reverse of PutBytes. Nothing for a count below 1.
QX_EXPORT void GetBytes(TQXiostream& stream, void* data, int32_t count, bool binary);
// Reads one token; a "{" is followed to its matching "}".
QX_EXPORT void SkipValue(TQXiostream& stream);
// The next token must be "{" (ExpectOpen) or "}" (ExpectClose), else FailReadFile.
QX_EXPORT void ExpectOpen(TQXiostream& stream);
QX_EXPORT void ExpectClose(TQXiostream& stream);
QX_EXPORT bool IsOpen(const char* text);   // the first character is "{"
QX_EXPORT bool IsClose(const char* text);  // the first character is "}"

// A token into `out` (cut at its capacity: at most 255 characters come from ReadToken), then
// translated from the stored character set. Returns ReadToken's code; does not throw.
QX_EXPORT uint32_t GetString(TQXString& out, TQXiostream& stream);
QX_EXPORT uint32_t GetDynamicString(TQXiostream& stream, TQXDynamicString& out);

// The typed getters: the matching >> slot of the stream. A value that does not parse is
// FailReadFile; GetChar and GetByte at the end of the stream are GetEndOfFile.
QX_EXPORT signed char GetChar(TQXiostream& stream);
QX_EXPORT uint8_t GetByte(TQXiostream& stream);
QX_EXPORT int16_t GetShort(TQXiostream& stream);
QX_EXPORT uint16_t GetUShort(TQXiostream& stream);
QX_EXPORT int32_t GetLong(TQXiostream& stream);
QX_EXPORT uint32_t GetULong(TQXiostream& stream);
QX_EXPORT float GetFloat(TQXiostream& stream);
QX_EXPORT double GetDouble(TQXiostream& stream);
QX_EXPORT bool GetBool(TQXiostream& stream);  // >> int32_t, not 0
// h, then a "," directly behind it, then v.
QX_EXPORT void GetPoint(TQXiostream& stream, TQXPoint& point);
// top,left,bottom,right as PutRect writes them.
QX_EXPORT void GetRect(TQXiostream& stream, TQXRect& rect);
// `count` values, each but the last followed directly by ",".
QX_EXPORT void GetShorts(TQXiostream& stream, int32_t count, int16_t* values);
// CodeFromText of the next token.
QX_EXPORT uint32_t GetCode(TQXiostream& stream);
// Expects "{", then copies the raw text of each token up to the matching "}", each followed by
// a blank, into `target`; nested blocks are copied whole. *size (if not null) gets target.Tell().
QX_EXPORT void GetBlockText(TQXiostream& stream, TQXstrstream& target, int32_t* size);

// Throw TQXException(kQXErrEndOfFile, 0, "", 0) and TQXException(kQXErrIO, 0, "", 0).
[[noreturn]] QX_EXPORT void GetEndOfFile();
[[noreturn]] QX_EXPORT void FailReadFile();

}  // namespace QXToken

#endif  // QXTOKEN_H
