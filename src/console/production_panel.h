#pragma once

#include <QGroupBox>
#include <string>

class QLabel;
class QLineEdit;

namespace palimbo {

struct ModuleResult;
struct RunFirmware;
struct RunRequest;

/// The production panel below the status area: the release the station writes, the last
/// module's result in large type, the station's counts and its record file. An operator reads
/// it from a distance; nothing on it can be changed.
class ProductionPanel final : public QGroupBox {
  Q_OBJECT

 public:
  explicit ProductionPanel(QWidget* Parent);

  /// The profile's release and record, as read when the window opened or the station started.
  void ShowRelease(const RunRequest& Request, const RunFirmware& Firmware);
  /// The last module's result: VERIFIED, ALREADY CURRENT or MATCHES in green, anything else in
  /// red with its reason.
  void ShowResult(int32_t Module, const ModuleResult& Result);
  /// The station's counts, as the command line tells them.
  void ShowCounts(const std::string& Counts);
  /// Why the profile cannot be used: no station starts.
  void ShowRefusal(const std::string& Reason);
  /// Why the station stopped before its count or the operator's stop.
  void ShowStop(const std::string& Reason);
  /// The field into which the operator scans each module's label, shown only where the
  /// station asks for units.
  QLineEdit* UnitField() { return txtUnit; }
  void AskUnits(bool On);

 private:
  void ShowBig(const QString& Text, bool Good, const QString& Reason);

  QLabel* lblRelease = nullptr;
  QLabel* lblLastResult = nullptr;
  QLabel* lblLastReason = nullptr;
  QLabel* lblCounts = nullptr;
  QLabel* lblRecord = nullptr;
  QLabel* lblUnit = nullptr;
  QLineEdit* txtUnit = nullptr;
};

}  // namespace palimbo
