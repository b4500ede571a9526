#include <cerrno>
#include <cstdio>
#include <iostream>
#include <string>
#include <system_error>

#include "cli/command_line.h"
#include "cli/commands.h"
#include "frames/crc16.h"
#include "image/hex_file.h"
#include "production/json_line.h"

namespace palimbo::cli {

namespace {

// The module programs the image in pages of this size.
constexpr size_t kPageSize = 256;

constexpr const char* kInfoUsage =
    "Usage: palimbo-cli info [--json] FILE\n"
    "Reads the firmware file FILE and shows the length of its image, the CRC over the image,\n"
    "whether it holds the encryption marker and the number of 256-byte pages, then a note for\n"
    "each record that hints at a file built for another target.\n\n"
    "Options:\n"
    "  --json   print one JSON object: length, crc, encrypted, pages, notes if any (or error)\n"
    "  --help   show this text\n";

constexpr const char* kHex2BinUsage =
    "Usage: palimbo-cli hex2bin FILE OUT\n"
    "Reads the firmware file FILE and writes its flat image to OUT, byte n at offset n.\n\n"
    "Options:\n"
    "  --help   show this text\n";

}  // namespace

int RunInfo(const std::vector<std::string>& Args) {
  std::string file;
  bool json = false;
  CLI::App app;
  app.add_flag("--json", json);
  app.add_option("FILE", file)->required();
  if (ParseCommand(app, Args)) {
    std::cout << kInfoUsage;
    return kExitOk;
  }

  bool encrypted = false;
  const HexReadResult read = ReadHexFile(file, encrypted);
  if (!read.Ok()) {
    if (json) std::cout << JsonLine({{"error", read.Reason}}) << '\n';
    std::cerr << "palimbo-cli info: " << file << ": " << read.Reason << '\n';
    return kExitUsage;
  }

  const size_t length = read.FirmwareString.size();
  const int32_t crc = Crc16Of(read.FirmwareString);
  const size_t pages = (length + kPageSize - 1) / kPageSize;
  if (json) {
    nlohmann::ordered_json info = {
        {"length", length}, {"crc", crc}, {"encrypted", encrypted}, {"pages", pages}};
    for (const HexNote& note : read.Notes) info["notes"].push_back(HexNoteText(note));
    std::cout << JsonLine(info) << '\n';
    return kExitOk;
  }
  char crcText[16];
  std::snprintf(crcText, sizeof crcText, "0x%04X", static_cast<unsigned>(crc));
  std::cout << "File:      " << file << '\n'
            << "Length:    " << length << " bytes\n"
            << "CRC:       " << crcText << " (" << crc << ")\n"
            << "Encrypted: " << (encrypted ? "yes" : "no") << '\n'
            << "Pages:     " << pages << " of " << kPageSize << " bytes\n";
  for (const HexNote& note : read.Notes) std::cout << "Note:      " << HexNoteText(note) << '\n';
  return kExitOk;
}

int RunHex2Bin(const std::vector<std::string>& Args) {
  std::string file;
  std::string out;
  CLI::App app;
  app.add_option("FILE", file)->required();
  app.add_option("OUT", out)->required();
  if (ParseCommand(app, Args)) {
    std::cout << kHex2BinUsage;
    return kExitOk;
  }

  bool encrypted = false;
  const HexReadResult read = ReadHexFile(file, encrypted);
  if (!read.Ok()) {
    std::cerr << "palimbo-cli hex2bin: " << file << ": " << read.Reason << '\n';
    return kExitUsage;
  }

  const std::string& image = read.FirmwareString;
  std::FILE* target = std::fopen(out.c_str(), "wb");
  bool written = target != nullptr;
  if (written) written = std::fwrite(image.data(), 1, image.size(), target) == image.size();
  int err = errno;
  if (target != nullptr && std::fclose(target) != 0 && written) {
    err = errno;
    written = false;
  }
  if (!written) {
    std::cerr << "palimbo-cli hex2bin: cannot write " << out << ": "
              << std::generic_category().message(err) << '\n';
    return kExitFailed;
  }
  std::cout << "wrote " << image.size() << " bytes to " << out << '\n';
  return kExitOk;
}

}  // namespace palimbo::cli
