#pragma once

#include <QLocale>
#include <QString>
#include <QWidget>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "production/run_request.h"
#include "upload/job_context.h"

class QCheckBox;
class QComboBox;
class QGroupBox;
class QLabel;
class QLineEdit;
class QListWidget;
class QMenu;
class QPushButton;
class QRadioButton;
class QSettings;
class QTimer;

namespace palimbo {

class AdapterScanner;
class MessageBoxes;
class ProductionPanel;
class ProductionRun;
class ProgressSurface;

/// The application title: the settings store's name and the cancel question's title.
inline constexpr char kAppTitle[] = "Palimbo v1";

/// Captions of the two start buttons; the caption of `cmdStart` tells whether a job runs.
inline constexpr char kStartCaption[] = "START";
inline constexpr char kCancelCaption[] = "CANCEL";
inline constexpr char kStartIn10Caption[] = "START IN 10 SEC";

/// What the window works with besides its own controls. The creator keeps each part alive for
/// as long as the window lives.
struct ConsoleServices {
  palimbo::AdapterScanner& Scanner;  ///< finds the controller's adapter for the automatic mode
  palimbo::SerialBackend& Port;      ///< the serial ports the upload opens
  palimbo::Clock& Clock;             ///< the upload's clock and the count's sleep
  QSettings& Settings;               ///< the store of "Port" and "File", section "Settings"
  palimbo::MessageBoxes& Boxes;      ///< every modal box the window shows
  /// The station profile of production mode; empty for the operator's own window.
  QString Profile = {};
};

/// The system's time format with seconds and without a time zone, for the status list's stamp.
QString LogTimeFormat(const QLocale& Locale);

/// The main window: the operator's four steps, the manuals, and the upload job inside it.
///
/// The upload runs inside the click handler of `cmdStart` on this thread; its waits pump
/// events, so the timer, the buttons and the close box run as nested handlers meanwhile.
class frmPalimbo final : public QWidget {
  Q_OBJECT

 public:
  explicit frmPalimbo(ConsoleServices Services, QWidget* Parent = nullptr);
  ~frmPalimbo() override;

  /// The members the window shares with the upload job (`Cancel`, `QUnload`, `IsEncrypted`,
  /// `PortHandle`).
  JobContext& Job() { return *job_; }
  /// True while `StartUpload` has not returned, also after a confirmed cancel.
  bool UploadRunning() const { return upload_running_; }
  /// True when the window runs the station of a profile instead of single uploads.
  bool ProductionMode() const { return production_; }

  /// Adds a time-stamped line to `lstStatus`; the selection follows it when it stood on the
  /// last line or nowhere. Pumps no events.
  void Log(const QString& Text);
  /// Repaints `pctProgress` to `Val` / `Max` of its width in `Color` (0xBBGGRR) with `Text`
  /// in its middle, then pumps events.
  void SetProgress(int32_t Val, int32_t Max, uint32_t Color, const QString& Text);

  void Form_Load();
  void cmbComPort_Change();
  void cmbComPort_Click();
  void txtFirmwareFile_Change();
  void optAutomatic_Click();
  void optSelectManually_Click();
  void TimerRefreshPort_Timer();
  void cmdStart_Click();
  void cmdStartIn10_Click();
  /// Sets `Cancel` to a value other than 0 to refuse the close.
  void Form_QueryUnload(int& Cancel, int UnloadMode);
  void Form_Unload(int& Cancel);
  void cmdBrowse_Click();
  void cmdEnglishManual_Click();
  void cmdGermanManual_Click();

  /// All lines of the status list, one a line.
  QString LogText() const;
  /// Puts the whole status list on the clipboard.
  void CopyLog();
  /// Asks for a file and writes the status list into it.
  void SaveLogAs();

 protected:
  void closeEvent(QCloseEvent* Event) override;
  void dragEnterEvent(QDragEnterEvent* Event) override;
  void dropEvent(QDropEvent* Event) override;

 private:
  class JobBridge;
  class StationPump;
  class StationView;

  void BuildControls();
  void ConnectHandlers();
  QString ReadSetting(const QString& Key, const QString& Default) const;
  void SaveSetting(const QString& Key, const QString& Text);
  void ShowStatusMenu(const QPoint& Position);
  void FinishJob();
  void ShowProfile();
  /// Notes about the firmware file, such as one probably built for another target.
  void LogWarnings(const std::vector<std::string>& Warnings);
  void RunStation();
  void DriveStation(ProductionRun& Run);
  /// A station runs and waits for its next module (or for its port): nothing to cancel.
  bool StationWaiting() const;
  /// The next line scanned into the unit field, once its Enter came; nothing when the station
  /// stopped first.
  std::optional<std::string> ReadUnitLine();

  ConsoleServices services_;
  std::unique_ptr<JobBridge> bridge_;
  std::unique_ptr<JobContext> job_;
  bool upload_running_ = false;
  bool unloaded_ = false;
  bool production_ = false;
  RunRequest profile_;
  std::string profile_error_;              // why the profile cannot run at all
  bool station_stop_ = false;              // the operator or the window's close ended the station
  bool in_module_ = false;                 // a station's job runs, not its wait for the port
  std::deque<std::string> scanned_units_;  // lines of the unit field not used yet

  QGroupBox* Frame1 = nullptr;
  QLabel* Label1 = nullptr;
  QComboBox* cmbComPort = nullptr;
  QLabel* Label2 = nullptr;
  QLabel* Label3 = nullptr;
  QLabel* Label4 = nullptr;
  QLineEdit* txtFirmwareFile = nullptr;
  QPushButton* cmdBrowse = nullptr;
  QLabel* Label5 = nullptr;
  QPushButton* cmdStart = nullptr;
  QLabel* Label6 = nullptr;
  QLabel* Label7 = nullptr;
  QListWidget* lstStatus = nullptr;
  ProgressSurface* pctProgress = nullptr;
  QPushButton* cmdStartIn10 = nullptr;
  QRadioButton* optSelectManually = nullptr;
  QRadioButton* optAutomatic = nullptr;
  QLabel* lblDetectedDevice = nullptr;
  QLabel* Label8 = nullptr;
  QLabel* Label9 = nullptr;
  QPushButton* cmdEnglishManual = nullptr;
  QPushButton* cmdGermanManual = nullptr;
  QTimer* TimerRefreshPort = nullptr;
  QMenu* mnuStatus = nullptr;
  ProductionPanel* fraProduction = nullptr;
};

}  // namespace palimbo
