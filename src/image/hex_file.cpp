#include "image/hex_file.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string>

#include "image/file_digest.h"
#include "image/file_read.h"

namespace palimbo {

namespace {

// Value of each character as a hexadecimal digit, or -1 for any other character.
constexpr std::array<int8_t, 256> kHexDigitValues = [] {
  std::array<int8_t, 256> values{};
  for (int c = 0; c < 256; ++c) {
    values[c] = c >= '0' && c <= '9'   ? static_cast<int8_t>(c - '0')
                : c >= 'A' && c <= 'F' ? static_cast<int8_t>(c - 'A' + 10)
                : c >= 'a' && c <= 'f' ? static_cast<int8_t>(c - 'a' + 10)
                                       : int8_t{-1};
  }
  return values;
}();

int HexDigit(char c) {
  return kHexDigitValues[static_cast<unsigned char>(c)];
}

// Decodes into `Out`, reusing its storage, so the reader allocates no string per line.
void MakeBinInto(std::string_view Hexadec, std::string& Out) {
  const size_t length = Hexadec.size();
  size_t count = length / 2;
  // An odd length rounds its half to the even neighbour.
  if (length % 2 == 1 && count % 2 == 1) ++count;
  Out.resize(count);
  // A non-hex digit ends its pair: nothing of a pair that starts with one, the first digit alone
  // of a pair that ends with one.
  const size_t whole = std::min(count, length / 2);
  for (size_t i = 0; i < whole; ++i) {
    const int high = HexDigit(Hexadec[2 * i]);
    const int low = HexDigit(Hexadec[2 * i + 1]);
    Out[i] = static_cast<char>(high < 0 ? 0 : low < 0 ? high : high * 16 + low);
  }
  // The rounded-up pair holds the last digit alone.
  if (whole < count) Out[whole] = static_cast<char>(std::max(HexDigit(Hexadec[2 * whole]), 0));
}

// Cuts lines off the front of a text: the first CR LF pair of the remaining text ends a line;
// only when none is left does the first CR, and only when no CR is left the first LF.
// Each search resumes where the last one stopped, so the whole text is scanned once per kind.
class LineCutter {
 public:
  explicit LineCutter(std::string_view Text)
      : text_(Text),
        nextCrlf_(Text.find("\r\n")),
        nextCr_(Text.find('\r')),
        nextLf_(Text.find('\n')) {}

  bool Next(std::string_view& Line) {
    if (pos_ >= text_.size()) return false;
    const size_t crlf = NextAt(nextCrlf_, "\r\n");
    if (crlf != std::string_view::npos) return Cut(crlf, 2, Line);
    const size_t cr = NextAt(nextCr_, "\r");
    if (cr != std::string_view::npos) return Cut(cr, 1, Line);
    const size_t lf = NextAt(nextLf_, "\n");
    if (lf != std::string_view::npos) return Cut(lf, 1, Line);
    return Cut(text_.size(), 0, Line);
  }

 private:
  // A hit still ahead of the cursor stays valid, and a search that found nothing never needs
  // repeating, so no character is looked at twice for the same separator.
  size_t NextAt(size_t& Cached, std::string_view Separator) {
    if (Cached != std::string_view::npos && Cached < pos_) Cached = text_.find(Separator, pos_);
    return Cached;
  }

  bool Cut(size_t End, size_t SeparatorLength, std::string_view& Line) {
    Line = text_.substr(pos_, End - pos_);
    pos_ = End + SeparatorLength;
    return true;
  }

  std::string_view text_;
  size_t pos_ = 0;
  size_t nextCrlf_;
  size_t nextCr_;
  size_t nextLf_;
};

bool IsBlankLine(std::string_view Line) {
  return Line.find_first_not_of(' ') == std::string_view::npos;
}

HexReadResult Failed(int LineNumber, const char* What) {
  HexReadResult result;
  result.Reason = "line " + std::to_string(LineNumber) + ": " + What;
  return result;
}

}  // namespace

std::string HexNoteText(const HexNote& Note) {
  const std::string line = "line " + std::to_string(Note.Line) + ": ";
  switch (Note.What) {
    case HexNote::Kind::LinearAddress: {
      char upper[8];
      std::snprintf(upper, sizeof upper, "0x%04X", static_cast<unsigned>(Note.UpperAddress));
      return line + "extended linear address " + upper +
             " (type 4): its data land at their 16-bit addresses";
    }
    case HexNote::Kind::DataBehindEnd:
      return line + "data behind the end-of-file record: they are read into the image";
  }
  return line;
}

std::string MakeBin(std::string_view Hexadec) {
  std::string bytes;
  MakeBinInto(Hexadec, bytes);
  return bytes;
}

std::string MakeHex(std::string_view Text) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string hex(Text.size() * 2, '0');
  for (size_t i = 0; i < Text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(Text[i]);
    hex[2 * i] = kDigits[byte >> 4];
    hex[2 * i + 1] = kDigits[byte & 0x0F];
  }
  return hex;
}

HexReadResult ReadHexText(std::string_view Text, bool& IsEncrypted) {
  constexpr int64_t kBufferSize = int64_t{kImageMaxIndex} + 1;
  std::string imageBuffer(kBufferSize, '\0');
  int64_t baseAddress = 0;
  int64_t imageLength = 0;
  std::vector<HexNote> notes;
  bool behindEnd = false;
  bool dataBehindEndNoted = false;

  LineCutter cutter(Text);
  std::string_view line;
  std::string record;
  int lineNumber = 0;
  while (cutter.Next(line)) {
    ++lineNumber;
    if (IsBlankLine(line)) continue;
    // The record mark is dropped unseen: any first character will do.
    MakeBinInto(line.substr(1), record);
    const size_t n = record.size();
    if (n < 4) return Failed(lineNumber, "record shorter than 4 bytes");

    const auto at = [&record](size_t i) { return static_cast<uint8_t>(record[i]); };
    unsigned sum = 0;
    for (size_t i = 0; i + 1 < n; ++i) sum += at(i);
    if (((~sum + 1) & 0xFF) != at(n - 1)) return Failed(lineNumber, "checksum mismatch");

    const uint8_t byteCount = at(0);
    const int64_t address = at(1) * 256 + at(2);
    const uint8_t type = at(3);
    // The data run to the byte before the checksum, whatever the byte count says.
    const std::string_view data =
        n > 5 ? std::string_view(record).substr(4, n - 5) : std::string_view();

    switch (type) {
      case 0: {
        if (behindEnd && !dataBehindEndNoted) {
          notes.push_back({HexNote::Kind::DataBehindEnd, lineNumber});
          dataBehindEndNoted = true;
        }
        const int64_t start = baseAddress + address;
        // The index of the record's last byte; an empty record still stretches the image to
        // its start, so it must not start past the buffer either.
        const int64_t index = start + static_cast<int64_t>(data.size()) - 1;
        if (index > kImageMaxIndex) return Failed(lineNumber, "data beyond address 100000");
        std::copy(data.begin(), data.end(), imageBuffer.begin() + start);
        imageLength = std::max(imageLength, index + 1);
        break;
      }
      case 2:
        // Only the published form, two data bytes of a segment, gives a base; a byte count
        // of 2 over other data comes from lines run together by mixed line ends.
        if (byteCount == 2 && address == 0 && data.size() == 2) {
          baseAddress =
              (int64_t{static_cast<uint8_t>(data[0])} * 256 + static_cast<uint8_t>(data[1])) * 16;
        } else {
          baseAddress = 0;
        }
        break;
      case 255:
        IsEncrypted = true;
        break;
      default:
        // End of file, linear address and start addresses change nothing in the image.
        behindEnd = behindEnd || type == 1;
        // A linear address above 64 KiB only tells of a file made for another target.
        if (type == 4 && byteCount == 2 && data.size() == 2) {
          const uint32_t upper =
              uint32_t{static_cast<uint8_t>(data[0])} * 256 + static_cast<uint8_t>(data[1]);
          if (upper != 0) notes.push_back({HexNote::Kind::LinearAddress, lineNumber, upper});
        }
        break;
    }
  }

  imageBuffer.resize(static_cast<size_t>(imageLength));
  HexReadResult result;
  result.FirmwareString = std::move(imageBuffer);
  result.Notes = std::move(notes);
  return result;
}

HexReadResult ReadHexFile(const std::string& Filename, bool& IsEncrypted, FileDigest Digest) {
  const FileBytes file = ReadRegularFile(Filename, kHexFileMaxBytes);
  HexReadResult result;
  switch (file.Problem) {
    case FileProblem::None:
      // The digest is of the very bytes the image comes from, so a record can name them.
      result = ReadHexText(file.Bytes, IsEncrypted);
      if (result.Ok() && Digest == FileDigest::Sha256) result.FileSha256 = Sha256Hex(file.Bytes);
      return result;
    case FileProblem::NotRegular:
      result.Reason = "not a regular file (" + file.Detail + ")";
      break;
    case FileProblem::TooLarge:
      result.Reason = "file larger than " + std::to_string(kHexFileMaxBytes >> 20) + " MiB";
      break;
    case FileProblem::CannotOpen:
      result.Reason = "cannot open file: " + file.Detail;
      break;
    case FileProblem::ReadError:
      result.Reason = "read error: " + file.Detail;
      break;
  }
  return result;
}

}  // namespace palimbo
