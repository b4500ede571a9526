#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace palimbo {

/// Highest index of the image buffer: an image holds at most 100001 bytes.
inline constexpr int32_t kImageMaxIndex = 100000;

/// Largest firmware file that is read: the HEX text of a full image takes about 280 KiB.
inline constexpr size_t kHexFileMaxBytes = size_t{16} << 20;

/// A record that the reader's rules pass over but that hints at a file built for another
/// target: the image is the same with or without the note.
struct HexNote {
  enum class Kind {
    LinearAddress,  ///< type 4 with a non-zero upper address, which is not applied
    DataBehindEnd,  ///< the first data record behind an end-of-file record, which is read
  };
  Kind What;
  int Line;                   ///< 1-based line of the record
  uint32_t UpperAddress = 0;  ///< for `LinearAddress`: the upper 16 bits of the address it names
};

/// A note as a line: "line 3: extended linear address 0x0800 (type 4): its data land at their
/// 16-bit addresses", "line 9: data behind the end-of-file record: they are read into the image".
std::string HexNoteText(const HexNote& Note);

/// Whether a read computes the SHA-256 of the file: only what names the file by it asks.
enum class FileDigest { None, Sha256 };

/// The outcome of reading a firmware file. On failure the image is empty and `Reason` says
/// why: with the 1-based line where one applies ("line 12: checksum mismatch"), else the cause
/// ("not a regular file (a directory)", "file larger than 16 MiB",
/// "cannot open file: No such file or directory", "read error: Input/output error").
struct HexReadResult {
  std::string FirmwareString;  ///< the flat image; byte n belongs at device address n
  std::string Reason;          ///< empty when the read succeeded
  std::string FileSha256;      ///< SHA-256 of the file's bytes, when asked for and read
  std::vector<HexNote> Notes;  ///< in the order of their lines; empty on failure
  bool Ok() const { return Reason.empty(); }
};

/// Reads an Intel HEX file into the flat image. Sets `IsEncrypted` when the file holds a
/// marker record of type 255; never clears it. Only a regular file of at most
/// `kHexFileMaxBytes` is read; anything else is refused before it can block.
HexReadResult ReadHexFile(const std::string& Filename, bool& IsEncrypted,
                          FileDigest Digest = FileDigest::None);

/// The same on a text already in memory, one character a byte.
HexReadResult ReadHexText(std::string_view Text, bool& IsEncrypted);

/// Hexadecimal digit pairs to bytes. Never fails.
std::string MakeBin(std::string_view Hexadec);

/// Bytes to upper-case hexadecimal digit pairs: 0A FF gives "0AFF".
std::string MakeHex(std::string_view Text);

}  // namespace palimbo
