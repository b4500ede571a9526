#include <cstdio>
#include <iostream>
#include <memory>

#include "adapter/modFTDI.h"
#include "adapter/port_report.h"
#include "adapter/port_selection.h"
#include "adapter/sysfs_scanner.h"
#include "cli/args.h"
#include "cli/command_line.h"
#include "cli/commands.h"
#include "production/json_line.h"

namespace palimbo::cli {

namespace {

void PrintPortsHelp(std::ostream& Out) {
  Out << "Usage: palimbo-cli ports [--all] [--json] [--sysfs DIR] [--ftdi-library PATH]\n"
         "Looks once for the USB adapter of a controller, as the window's automatic port\n"
         "selection does, and prints the label it would show and the port it found.\n\n"
         "Options:\n"
         "  --all                 list every serial port of the machine instead: its USB\n"
         "                        description, whether it is a controller's adapter, whether\n"
         "                        this user may open it (and if not, the fix), its latency\n"
         "                        timer and the programs that hold it\n"
         "  --json                print JSON, one object a line\n"
         "  --sysfs DIR           walk the serial ports listed under DIR instead of /sys\n"
         "  --ftdi-library PATH   ask the adapter vendor's D2XX library at PATH instead\n"
         "                        (such as "
      << d2xx::kLibraryName
      << ")\n"
         "  --help                show this help\n\n"
         "Exit status: 0 a port was found, 1 none was found, 2 bad arguments.\n";
}

std::string LatencyText(const SerialPortReport& Port) {
  return Port.LatencyTimerMs ? std::to_string(*Port.LatencyTimerMs) + " ms" : "-";
}

std::string HoldersText(const SerialPortReport& Port) {
  std::string text;
  for (const auto& holder : Port.HeldBy) text += (text.empty() ? "" : ", ") + holder;
  return text.empty() ? "-" : text;
}

int ReportAllPorts(const PortSystemView& View, bool Json) {
  const std::vector<SerialPortReport> ports = ReportSerialPorts(View);
  if (Json) {
    for (const auto& port : ports) {
      nlohmann::ordered_json line = {{"port", port.Port},
                                     {"description", port.UsbDescription},
                                     {"controller", port.Controller},
                                     {"may_open", port.MayOpen},
                                     {"held_by", port.HeldBy}};
      if (!port.Fix.empty()) line["fix"] = port.Fix;
      if (port.LatencyTimerMs) line["latency_timer_ms"] = *port.LatencyTimerMs;
      std::cout << JsonLine(line) << '\n';
    }
  } else if (ports.empty()) {
    std::cout << "No serial ports found.\n";
  } else {
    std::printf("%-16s %-10s %-8s %-8s %-20s %s\n", "PORT", "CONTROLLER", "ACCESS", "LATENCY",
                "HELD BY", "DESCRIPTION");
    for (const auto& port : ports) {
      std::printf("%-16s %-10s %-8s %-8s %-20s %s\n", port.Port.c_str(),
                  port.Controller ? "yes" : "no", port.MayOpen ? "yes" : "no",
                  LatencyText(port).c_str(), HoldersText(port).c_str(),
                  port.UsbDescription.empty() ? "-" : port.UsbDescription.c_str());
      if (!port.Fix.empty()) std::printf("  fix: %s\n", port.Fix.c_str());
    }
  }
  for (const auto& port : ports) {
    if (port.Controller) return kExitOk;
  }
  return kExitFailed;
}

}  // namespace

int RunPorts(const std::vector<std::string>& Args) {
  bool all = false;
  bool json = false;
  std::string sysfs;
  std::string library;
  CLI::App app;
  app.add_flag("--all", all);
  app.add_flag("--json", json);
  auto* sysfsOption = app.add_option("--sysfs", sysfs);
  app.add_option("--ftdi-library", library)->excludes(sysfsOption);
  if (ParseCommand(app, Args)) {
    PrintPortsHelp(std::cout);
    return kExitOk;
  }
  if (all) {
    if (!library.empty()) throw UsageError("--all walks the system, not a library");
    PortSystemView view;
    if (!sysfs.empty()) view.Sysfs = sysfs;
    return ReportAllPorts(view, json);
  }

  std::unique_ptr<AdapterScanner> scanner;
  if (!library.empty()) {
    scanner = std::make_unique<D2xxAdapterScanner>(library);
  } else if (!sysfs.empty()) {
    scanner = std::make_unique<SysfsAdapterScanner>(sysfs);
  } else {
    scanner = MakeSystemAdapterScanner();
  }

  std::string label;
  const std::optional<std::string> port = FindAdapterPort(*scanner, &label);
  if (json) {
    std::cout << JsonLine(
                     {{"label", label}, {"port", port ? nlohmann::ordered_json(*port) : nullptr}})
              << '\n';
  } else {
    std::cout << "label: " << label << "\n"
              << "port: " << port.value_or("(none)") << "\n";
  }
  return port ? kExitOk : kExitFailed;
}

}  // namespace palimbo::cli
