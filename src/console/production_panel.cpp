#include "console/production_panel.h"

#include <QDir>
#include <QFileInfo>
#include <QLabel>
#include <QLineEdit>

#include "production/outcome.h"
#include "production/production_run.h"

namespace palimbo {

namespace {

constexpr QColor kGood(0, 128, 0);
constexpr QColor kBad(255, 0, 0);
// Enough of the SHA-256 to tell two releases apart at a glance.
constexpr int kShaShown = 12;

QLabel* MakeLabel(QWidget* Parent, const char* Name, QRect Where) {
  auto* Label = new QLabel(Parent);
  Label->setObjectName(QString::fromLatin1(Name));
  Label->setGeometry(Where);
  Label->setAlignment(Qt::AlignLeft | Qt::AlignVCenter);
  Label->setTextInteractionFlags(Qt::TextSelectableByMouse);
  return Label;
}

QString Text(const std::string& Bytes) {
  return QString::fromLocal8Bit(Bytes);
}

}  // namespace

ProductionPanel::ProductionPanel(QWidget* Parent)
    : QGroupBox(QStringLiteral("Production station"), Parent) {
  setObjectName(QStringLiteral("fraProduction"));
  // Measures in pixels of the window's twips grid (15 twips a pixel).
  lblRelease = MakeLabel(this, "lblRelease", QRect(16, 18, 609, 17));
  lblLastResult = MakeLabel(this, "lblLastResult", QRect(16, 38, 290, 34));
  QFont Big = font();
  Big.setPointSizeF(18);
  Big.setBold(true);
  lblLastResult->setFont(Big);
  lblLastReason = MakeLabel(this, "lblLastReason", QRect(16, 74, 290, 17));
  lblLastReason->setWordWrap(true);
  lblCounts = MakeLabel(this, "lblCounts", QRect(312, 38, 313, 17));
  lblRecord = MakeLabel(this, "lblRecord", QRect(312, 56, 313, 17));
  lblUnit = MakeLabel(this, "lblUnit", QRect(312, 76, 40, 20));
  lblUnit->setText(QStringLiteral("Unit:"));
  txtUnit = new QLineEdit(this);
  txtUnit->setObjectName(QStringLiteral("txtUnit"));
  txtUnit->setGeometry(QRect(352, 76, 273, 20));
  txtUnit->setToolTip(
      QStringLiteral("Scan the label of the next module: its unit is known when "
                     "the scanner's Enter comes"));
  AskUnits(false);
  lblLastResult->setText(QStringLiteral("READY"));
}

void ProductionPanel::ShowRelease(const RunRequest& Request, const RunFirmware& Firmware) {
  const QString Sha = Text(Firmware.Image.FileSha256).left(kShaShown);
  lblRelease->setText(QStringLiteral("Release: %1   SHA-256 %2\u2026   %3")
                          .arg(QFileInfo(Text(Request.File)).fileName(), Sha,
                               Request.ExpectSha256.empty() ? QStringLiteral("not locked")
                                                            : QStringLiteral("locked")));
  lblRecord->setText(
      Request.RecordFile.empty()
          ? QStringLiteral("Record: none")
          : QStringLiteral("Record: %1").arg(QDir::toNativeSeparators(Text(Request.RecordFile))));
}

void ProductionPanel::ShowResult(int32_t Module, const ModuleResult& Result) {
  const bool Good = Result.ExitStatus == kExitOk;
  QString Caption = QString::fromLatin1(OutcomeName(Result.Result.Outcome)).toUpper();
  std::string Why = Result.Result.Reason;
  // A module written well whose record line or trace was lost is no good module.
  if (!Good && ExitStatusOf(Result.Result.Outcome) == kExitOk) {
    Caption = QStringLiteral("FAILED");
    Why = Result.Record.starts_with("not written") ? "record " + Result.Record
                                                   : "trace " + Result.Trace;
  }
  QString Reason = QStringLiteral("module %1").arg(Module);
  if (!Result.Unit.empty()) Reason += QStringLiteral(" (unit %1)").arg(Text(Result.Unit));
  if (!Good && !Why.empty()) Reason += QStringLiteral(": ") + Text(Why);
  ShowBig(Caption, Good, Reason);
}

void ProductionPanel::AskUnits(bool On) {
  lblUnit->setVisible(On);
  txtUnit->setVisible(On);
}

void ProductionPanel::ShowCounts(const std::string& Counts) {
  lblCounts->setText(Text(Counts));
}

void ProductionPanel::ShowRefusal(const std::string& Reason) {
  ShowBig(QStringLiteral("NOT READY"), false, Text(Reason));
}

void ProductionPanel::ShowStop(const std::string& Reason) {
  ShowBig(QStringLiteral("STOPPED"), false, Text(Reason));
}

void ProductionPanel::ShowBig(const QString& Caption, bool Good, const QString& Reason) {
  lblLastResult->setText(Caption);
  QPalette Colour = lblLastResult->palette();
  Colour.setColor(QPalette::WindowText, Good ? kGood : kBad);
  lblLastResult->setPalette(Colour);
  lblLastReason->setText(Reason);
}

}  // namespace palimbo
