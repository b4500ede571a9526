#include "console/frmPalimbo.h"

#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QCloseEvent>
#include <QComboBox>
#include <QDir>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFrame>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMenu>
#include <QMimeData>
#include <QPushButton>
#include <QRadioButton>
#include <QSaveFile>
#include <QSettings>
#include <QTime>
#include <QTimer>
#include <QUrl>

#include "adapter/port_selection.h"
#include "console/manuals.h"
#include "console/message_boxes.h"
#include "console/modStDialog.h"
#include "console/production_panel.h"
#include "console/progress_surface.h"
#include "console/serial_ports.h"
#include "console/window_icon.h"
#include "production/production_run.h"
#include "production/profile.h"
#include "production/station.h"
#include "serial/comm.h"
#include "serial/serial_remote.h"
#include "serial/trace_backend.h"
#include "upload/upload.h"

namespace palimbo {

namespace {

constexpr char kSection[] = "Settings/";
constexpr char kCancelQuestion[] =
    "Do you really want to cancel the upload? The device may be unusable after this!";
constexpr char kHexFilter[] = "Intel HEX files (*.hex)|*.hex|All files (*.*)|*.*";
constexpr char kLogFilter[] = "Text files (*.txt)|*.txt|All files (*.*)|*.*";
constexpr QColor kRedText(255, 0, 0);
constexpr QColor kTealFace(0, 192, 192);
// The production panel stands below everything else; the window grows downward by it.
constexpr int kPanelTop = 5175;
constexpr int kPanelHeight = 1500;

// The layout is given in twips; at 96 dots an inch a pixel is 15 twips, and the toolkit
// scales logical pixels for other screens.
int Px(int Twips) {
  return (Twips + 7) / 15;
}
QRect Twips(int Left, int Top, int Width, int Height) {
  return QRect(Px(Left), Px(Top), Px(Width), Px(Height));
}

QStringList FaceWithFallbacks() {
  return {QStringLiteral("MS Sans Serif"), QStringLiteral("Microsoft Sans Serif"),
          QStringLiteral("Arial"), QStringLiteral("Liberation Sans"),
          QStringLiteral("DejaVu Sans Condensed")};
}

QLabel* MakeLabel(QWidget* Parent, const char* Name, const char* Caption, QRect Where) {
  auto* Label = new QLabel(QString::fromUtf8(Caption), Parent);
  Label->setObjectName(QString::fromLatin1(Name));
  Label->setGeometry(Where);
  Label->setAlignment(Qt::AlignLeft | Qt::AlignTop);
  Label->setWordWrap(true);
  return Label;
}

QPushButton* MakeButton(QWidget* Parent, const char* Name, const char* Caption, QRect Where) {
  auto* Button = new QPushButton(QString::fromUtf8(Caption), Parent);
  Button->setObjectName(QString::fromLatin1(Name));
  Button->setGeometry(Where);
  Button->setAutoDefault(false);
  return Button;
}

QFrame* MakeLine(QWidget* Parent, const char* Name, int Y) {
  auto* Line = new QFrame(Parent);
  Line->setObjectName(QString::fromLatin1(Name));
  Line->setFrameShape(QFrame::HLine);
  Line->setFrameShadow(QFrame::Sunken);
  Line->setGeometry(QRect(0, Px(Y), Px(9600), 2));
  return Line;
}

// Sets a caption and shows it at once, as a running job may not pump for a while.
void SetCaption(QPushButton* Button, const QString& Caption) {
  Button->setText(Caption);
  Button->repaint();
}

QString Text(const std::string& Bytes) {
  return QString::fromLocal8Bit(Bytes);
}
std::string Bytes(const QString& Text) {
  return Text.toLocal8Bit().toStdString();
}

}  // namespace

QString LogTimeFormat(const QLocale& Locale) {
  const QString Long = Locale.timeFormat(QLocale::LongFormat);
  QString Format;
  bool Quoted = false;
  // The long form carries the seconds; only its time zone ("t", outside quotes) goes.
  for (const QChar Character : Long) {
    if (Character == QLatin1Char('\'')) Quoted = !Quoted;
    if (!Quoted && Character == QLatin1Char('t')) continue;
    Format += Character;
  }
  return Format.simplified();
}

class frmPalimbo::JobBridge final : public JobLog,
                                    public ProgressDisplay,
                                    public EventPump,
                                    public OperatorQuestion {
 public:
  explicit JobBridge(frmPalimbo& Window) : window_(Window) {}

  void Log(const std::string& Line) override { window_.Log(Text(Line)); }
  void SetProgress(int32_t Val, int32_t Max, uint32_t Color, const std::string& Caption) override {
    window_.pctProgress->DrawProgress(Val, Max, Color, Text(Caption));
  }
  void PumpEvents() override { QCoreApplication::processEvents(); }
  bool AskYesNo(const std::string& Title, const std::string& Question) override {
    return window_.services_.Boxes.AskYesNo(&window_, Text(Title), Text(Question));
  }

 private:
  frmPalimbo& window_;
};

// The event pump of a station's jobs: the window's events first, then the station's rules,
// which see a CANCEL or close that those events brought.
class frmPalimbo::StationPump final : public EventPump {
 public:
  StationPump(frmPalimbo& Window, ModuleJob& Job) : window_(Window), job_(Job) {}
  void PumpEvents() override {
    QCoreApplication::processEvents();
    job_.AtPump(*window_.job_, window_.station_stop_);
  }

 private:
  frmPalimbo& window_;
  ModuleJob& job_;
};

// What a station tells the operator: its lines in the status list, its results on the panel.
class frmPalimbo::StationView final : public StationEvents {
 public:
  StationView(frmPalimbo& Window, const StationTally& Tally) : window_(Window), tally_(Tally) {}
  void Log(size_t, const std::string& Line) override { window_.Log(Text(Line)); }
  void Note(size_t, const std::string& Line) override {
    window_.Log(Text(Line));
    window_.fraProduction->ShowStop(Line);
  }
  void Counted(size_t, int32_t Number, const ModuleResult& Result) override {
    window_.fraProduction->ShowResult(Number, Result);
    window_.fraProduction->ShowCounts(tally_.Counts());
  }

 private:
  frmPalimbo& window_;
  const StationTally& tally_;
};

frmPalimbo::frmPalimbo(ConsoleServices Services, QWidget* Parent)
    : QWidget(Parent, Qt::Window | Qt::MSWindowsFixedSizeDialogHint | Qt::WindowTitleHint |
                          Qt::WindowSystemMenuHint | Qt::WindowMinimizeButtonHint |
                          Qt::WindowCloseButtonHint),
      services_(Services),
      bridge_(std::make_unique<JobBridge>(*this)),
      job_(std::make_unique<JobContext>(*bridge_, *bridge_, *bridge_, *bridge_, Services.Clock,
                                        Services.Port)),
      production_(!Services.Profile.isEmpty()) {
  setObjectName(QStringLiteral("frmPalimbo"));
  // The window must outlive any job running inside one of its handlers.
  setAttribute(Qt::WA_DeleteOnClose, false);
  setWindowTitle(QStringLiteral("Module programmer"));
  setWindowIcon(MakeWindowIcon());
  setFixedSize(Px(9855), Px(production_ ? kPanelTop + kPanelHeight : 5175));
  // A station's file is the profile's: nothing dropped replaces it.
  setAcceptDrops(!production_);
  // The layout was measured for this small face; where it is missing, a face of like width.
  QFont Default;
  Default.setFamilies(FaceWithFallbacks());
  Default.setPointSizeF(8.0);
  setFont(Default);
  BuildControls();
  ConnectHandlers();
  Form_Load();
  TimerRefreshPort->start();
}

frmPalimbo::~frmPalimbo() = default;

void frmPalimbo::BuildControls() {
  Frame1 = new QGroupBox(QStringLiteral("Flash module"), this);
  Frame1->setObjectName(QStringLiteral("Frame1"));
  Frame1->setGeometry(Twips(120, 120, 9615, 4515));

  QFont StepFont;
  StepFont.setFamilies(FaceWithFallbacks());
  StepFont.setWeight(QFont::Bold);
  StepFont.setPointSizeF(9.75);
  QPalette RedText = palette();
  RedText.setColor(QPalette::WindowText, kRedText);

  Label1 = MakeLabel(Frame1, "Label1", "Port:", Twips(840, 240, 330, 195));
  Label1->setWordWrap(false);
  Label1->adjustSize();

  cmbComPort = new QComboBox(Frame1);
  cmbComPort->setObjectName(QStringLiteral("cmbComPort"));
  cmbComPort->setGeometry(Twips(3600, 780, 975, 315));
  cmbComPort->setEditable(true);
  cmbComPort->setInsertPolicy(QComboBox::NoInsert);
  cmbComPort->addItems(ListSerialPorts());
  // The text comes from the store alone, not from the first list item.
  cmbComPort->setCurrentIndex(-1);
  cmbComPort->setEditText(QString());
  cmbComPort->setEnabled(false);
  cmbComPort->lineEdit()->setAcceptDrops(false);

  for (auto [Label, Name, Caption, Top] :
       {std::tuple{&Label2, "Label2", "1)", 240}, std::tuple{&Label3, "Label3", "2)", 1260},
        std::tuple{&Label5, "Label5", "3)", 1740}, std::tuple{&Label6, "Label6", "4)", 2220}}) {
    *Label = MakeLabel(Frame1, Name, Caption, Twips(120, Top, 255, 255));
    (*Label)->setFont(StepFont);
  }

  Label4 = MakeLabel(Frame1, "Label4", "Firmware file:", Twips(840, 1260, 915, 195));
  Label4->setWordWrap(false);
  Label4->adjustSize();

  txtFirmwareFile = new QLineEdit(Frame1);
  txtFirmwareFile->setObjectName(QStringLiteral("txtFirmwareFile"));
  txtFirmwareFile->setGeometry(Twips(1920, 1260, 7215, 285));
  txtFirmwareFile->setAcceptDrops(false);

  cmdBrowse = MakeButton(Frame1, "cmdBrowse", "..", Twips(9240, 1260, 285, 285));
  cmdStart = MakeButton(Frame1, "cmdStart", kStartCaption, Twips(1920, 1740, 975, 255));

  Label7 = MakeLabel(Frame1, "Label7", "Status:", Twips(840, 2220, 495, 195));
  Label7->setWordWrap(false);
  Label7->adjustSize();

  lstStatus = new QListWidget(Frame1);
  lstStatus->setObjectName(QStringLiteral("lstStatus"));
  lstStatus->setGeometry(Twips(1920, 2220, 7575, 1815));
  lstStatus->setSelectionMode(QAbstractItemView::SingleSelection);
  lstStatus->setContextMenuPolicy(Qt::CustomContextMenu);

  pctProgress = new ProgressSurface(Frame1);
  pctProgress->setObjectName(QStringLiteral("pctProgress"));
  pctProgress->setGeometry(Twips(1920, 4140, 7575, 255));

  cmdStartIn10 =
      MakeButton(Frame1, "cmdStartIn10", kStartIn10Caption, Twips(3000, 1740, 1875, 255));

  optSelectManually = new QRadioButton(QStringLiteral("Specify manually:"), Frame1);
  optSelectManually->setObjectName(QStringLiteral("optSelectManually"));
  optSelectManually->setGeometry(Twips(1920, 780, 2535, 255));
  optAutomatic = new QRadioButton(QStringLiteral("Autodetect:"), Frame1);
  optAutomatic->setObjectName(QStringLiteral("optAutomatic"));
  optAutomatic->setGeometry(Twips(1920, 180, 1635, 255));
  optAutomatic->setChecked(true);
  // The combo box lies in front of the right end of the manual option.
  cmbComPort->raise();

  lblDetectedDevice =
      MakeLabel(Frame1, "lblDetectedDevice", "(No device found)", Twips(3600, 180, 3555, 255));
  Label8 = MakeLabel(Frame1, "Label8",
                     "Make sure, device is routing through traffic (not required for PC-kestrolar)",
                     Twips(3600, 480, 5895, 255));
  Label8->setPalette(RedText);
  Label9 = MakeLabel(Frame1, "Label9",
                     "Hold magnet switch from 5 sec before starting until update is running",
                     Twips(5040, 1680, 4455, 435));
  Label9->setPalette(RedText);

  cmdEnglishManual =
      MakeButton(this, "cmdEnglishManual", "ENGLISH MANUAL", Twips(2040, 4740, 2295, 375));
  cmdGermanManual =
      MakeButton(this, "cmdGermanManual", "DEUTSCHE ANLEITUNG", Twips(4440, 4740, 2295, 375));
  // The manual buttons paint their own teal face, whatever the system's button colour.
  const QString TealFace =
      QStringLiteral(
          "QPushButton { background-color: rgb(%1, %2, %3); border: 2px outset rgb(0, 150, 150);"
          " padding: 0px; } QPushButton:pressed { border-style: inset; }"
          " QPushButton:focus { border-color: rgb(0, 96, 96); }")
          .arg(kTealFace.red())
          .arg(kTealFace.green())
          .arg(kTealFace.blue());
  cmdEnglishManual->setStyleSheet(TealFace);
  cmdGermanManual->setStyleSheet(TealFace);

  if (production_) {
    fraProduction = new ProductionPanel(this);
    fraProduction->setGeometry(Twips(120, kPanelTop, 9615, kPanelHeight - 120));
  }

  MakeLine(Frame1, "Line1", 1140);
  MakeLine(Frame1, "Line2", 1620);
  MakeLine(Frame1, "Line3", 2100);

  TimerRefreshPort = new QTimer(Frame1);
  TimerRefreshPort->setObjectName(QStringLiteral("TimerRefreshPort"));
  TimerRefreshPort->setInterval(1000);

  mnuStatus = new QMenu(lstStatus);
  mnuStatus->setObjectName(QStringLiteral("mnuStatus"));
  QAction* CopyAction = mnuStatus->addAction(QStringLiteral("Copy log"));
  CopyAction->setObjectName(QStringLiteral("mnuCopyLog"));
  connect(CopyAction, &QAction::triggered, this, &frmPalimbo::CopyLog);
  QAction* SaveAction = mnuStatus->addAction(QString::fromUtf8("Save log as\u2026"));
  SaveAction->setObjectName(QStringLiteral("mnuSaveLog"));
  connect(SaveAction, &QAction::triggered, this, &frmPalimbo::SaveLogAs);

  QWidget* const TabOrder[] = {cmbComPort,   txtFirmwareFile,  cmdBrowse,      cmdStart,
                               lstStatus,    pctProgress,      cmdStartIn10,   optSelectManually,
                               optAutomatic, cmdEnglishManual, cmdGermanManual};
  pctProgress->setFocusPolicy(Qt::NoFocus);
  for (size_t I = 1; I < std::size(TabOrder); ++I) setTabOrder(TabOrder[I - 1], TabOrder[I]);

  cmbComPort->setToolTip(QStringLiteral(
      "Serial port of the controller. In manual mode pick one or type any port name"));
  optAutomatic->setToolTip(QStringLiteral("Look for the controller's USB adapter every second"));
  optSelectManually->setToolTip(QStringLiteral("Use the port chosen or typed in the box"));
  lblDetectedDevice->setToolTip(QStringLiteral("What the automatic detection found"));
  txtFirmwareFile->setToolTip(
      QStringLiteral("Intel HEX file to write into the module. You can also drop a file onto "
                     "the window"));
  cmdBrowse->setToolTip(QStringLiteral("Choose the firmware file"));
  cmdStart->setToolTip(QStringLiteral("Start the upload, or cancel the one that runs"));
  cmdStartIn10->setToolTip(
      QStringLiteral("Start the upload in ten seconds, time to hold the module's switch"));
  lstStatus->setToolTip(QStringLiteral("What the upload did. Right-click to copy or save the log"));
  pctProgress->setToolTip(
      QStringLiteral("Progress of the upload: the bar is red while the module is being changed"));
  cmdEnglishManual->setToolTip(QStringLiteral("Short operating instructions in English"));
  cmdGermanManual->setToolTip(QStringLiteral("Kurze Bedienungsanleitung auf Deutsch"));
}

void frmPalimbo::ConnectHandlers() {
  connect(cmbComPort, &QComboBox::editTextChanged, this, &frmPalimbo::cmbComPort_Change);
  connect(cmbComPort, &QComboBox::activated, this, &frmPalimbo::cmbComPort_Click);
  connect(txtFirmwareFile, &QLineEdit::textChanged, this, &frmPalimbo::txtFirmwareFile_Change);
  connect(optAutomatic, &QRadioButton::toggled, this, [this](bool Checked) {
    if (Checked) optAutomatic_Click();
  });
  connect(optSelectManually, &QRadioButton::toggled, this, [this](bool Checked) {
    if (Checked) optSelectManually_Click();
  });
  connect(TimerRefreshPort, &QTimer::timeout, this, &frmPalimbo::TimerRefreshPort_Timer);
  connect(cmdStart, &QPushButton::clicked, this, &frmPalimbo::cmdStart_Click);
  connect(cmdStartIn10, &QPushButton::clicked, this, &frmPalimbo::cmdStartIn10_Click);
  connect(cmdBrowse, &QPushButton::clicked, this, &frmPalimbo::cmdBrowse_Click);
  connect(cmdEnglishManual, &QPushButton::clicked, this, &frmPalimbo::cmdEnglishManual_Click);
  connect(cmdGermanManual, &QPushButton::clicked, this, &frmPalimbo::cmdGermanManual_Click);
  connect(lstStatus, &QListWidget::customContextMenuRequested, this, &frmPalimbo::ShowStatusMenu);
}

QString frmPalimbo::ReadSetting(const QString& Key, const QString& Default) const {
  return services_.Settings.value(QLatin1String(kSection) + Key, Default).toString();
}

void frmPalimbo::SaveSetting(const QString& Key, const QString& Value) {
  // The store keeps the operator's own port and file; a station's are the profile's.
  if (production_) return;
  services_.Settings.setValue(QLatin1String(kSection) + Key, Value);
  // Each change is to be in the store at once, not when the program ends.
  services_.Settings.sync();
}

void frmPalimbo::Form_Load() {
  job_->PortHandle = -1;
  if (production_) {
    ShowProfile();
    return;
  }
  cmbComPort->setEditText(ReadSetting(QStringLiteral("Port"), QStringLiteral("COM1")));
  txtFirmwareFile->setText(ReadSetting(QStringLiteral("File"), QString()));
}

void frmPalimbo::cmbComPort_Change() {
  SaveSetting(QStringLiteral("Port"), cmbComPort->currentText());
}

void frmPalimbo::cmbComPort_Click() {
  cmbComPort_Change();
}

void frmPalimbo::txtFirmwareFile_Change() {
  SaveSetting(QStringLiteral("File"), txtFirmwareFile->text());
}

void frmPalimbo::optAutomatic_Click() {
  cmbComPort->setEnabled(false);
}

void frmPalimbo::optSelectManually_Click() {
  cmbComPort->setEnabled(true);
}

void frmPalimbo::TimerRefreshPort_Timer() {
  // Any caption but exactly START means that an upload runs.
  const bool UploadRunning = cmdStart->text() != QLatin1String(kStartCaption);
  const PortRefresh Refresh = ::palimbo::TimerRefreshPort_Timer(
      UploadRunning, optAutomatic->isChecked(), services_.Scanner);
  lblDetectedDevice->setText(Text(Refresh.Label));
  // The combo box reports a change, and so a store write, only for a different text.
  if (Refresh.PortText) cmbComPort->setEditText(Text(*Refresh.PortText));
}

void frmPalimbo::Log(const QString& Line) {
  const QLocale System = QLocale::system();
  lstStatus->addItem(System.toString(QTime::currentTime(), LogTimeFormat(System)) +
                     QLatin1Char('\t') + Line);
  const int ListIndex = lstStatus->currentRow();
  const int ListCount = lstStatus->count();
  if (ListIndex == -1 || ListIndex == ListCount - 2) {
    lstStatus->setCurrentRow(ListCount - 1);
    lstStatus->scrollToItem(lstStatus->item(ListCount - 1));
  }
}

void frmPalimbo::SetProgress(int32_t Val, int32_t Max, uint32_t Color, const QString& Caption) {
  job_->SetProgress(Val, Max, Color, Bytes(Caption));
}

void frmPalimbo::cmdStart_Click() {
  if (cmdStart->text() == QLatin1String(kStartCaption)) {
    // After a confirmed cancel the caption reads START before the job has returned; a
    // second job must not start inside the first.
    if (upload_running_) return;
    if (production_) {
      RunStation();
      return;
    }
    SaveSetting(QStringLiteral("Port"), cmbComPort->currentText());
    SaveSetting(QStringLiteral("File"), txtFirmwareFile->text());
    // A mistyped network port is told in the list, and no job starts for it.
    const std::string PortProblem = PortNameProblem(Bytes(cmbComPort->currentText()));
    if (!PortProblem.empty()) {
      Log(Text(PortProblem));
      return;
    }
    job_->Cancel = false;
    SetCaption(cmdStart, QLatin1String(kCancelCaption));
    upload_running_ = true;
    StartUpload(*job_, Bytes(txtFirmwareFile->text()), Bytes(cmbComPort->currentText()));
    FinishJob();
    return;
  }
  // A station waiting for its next module has nothing to lose: it ends at once.
  if (StationWaiting()) {
    SetCaption(cmdStart, QLatin1String(kStartCaption));
    station_stop_ = true;
  } else if (services_.Boxes.AskYesNo(this, QLatin1String(kAppTitle),
                                      QLatin1String(kCancelQuestion))) {
    SetCaption(cmdStart, QLatin1String(kStartCaption));
    job_->Cancel = true;
    station_stop_ = true;
  }
  SetProgress(0, 100, kColorBlue, QString());
}

void frmPalimbo::FinishJob() {
  upload_running_ = false;
  SetCaption(cmdStart, QLatin1String(kStartCaption));
  job_->Cancel = false;
  SetProgress(0, 1, kColorBlue, QString());
  if (job_->QUnload) {
    if (!unloaded_) close();
    return;
  }
  SetProgress(0, 100, kColorBlue, QString());
}

bool frmPalimbo::StationWaiting() const {
  return production_ && upload_running_ && (!in_module_ || job_->Protocol.empty());
}

void frmPalimbo::ShowProfile() {
  profile_ = ReadProfile(Bytes(services_.Profile), profile_error_);
  if (profile_error_.empty() && profile_.Ports.size() != 1) {
    profile_error_ = "profile " + Bytes(services_.Profile) +
                     ": 'port': the window runs a station on one port; palimbo-cli flash "
                     "--profile runs several";
  }
  // The port and the file are the profile's, and nothing the operator can change.
  optSelectManually->setChecked(true);
  cmbComPort->setEditText(profile_.Ports.size() == 1 ? Text(profile_.Ports.front()) : QString());
  txtFirmwareFile->setText(Text(profile_.File));
  txtFirmwareFile->setReadOnly(true);
  for (QWidget* Fixed : std::initializer_list<QWidget*>{cmbComPort, optAutomatic, optSelectManually,
                                                        cmdBrowse, cmdStartIn10}) {
    Fixed->setEnabled(false);
  }
  if (!profile_error_.empty()) {
    Log(Text(profile_error_));
    fraProduction->ShowRefusal(profile_error_);
    return;
  }
  if (profile_.AskUnit) {
    // A scanner types into whatever has the focus: the unit field has it, and each Enter gives
    // the next module its unit, also one scanned while the module before is still written.
    fraProduction->AskUnits(true);
    QLineEdit* Field = fraProduction->UnitField();
    connect(Field, &QLineEdit::returnPressed, this, [this, Field] {
      scanned_units_.push_back(Bytes(Field->text()));
      Field->clear();
    });
    Field->setFocus();
  }
  // A first look at the release, so that the operator sees what START will write; the station
  // reads the file again when it starts, and that read is the one it writes.
  std::string why;
  std::vector<std::string> warnings;
  const RunFirmware firmware = ReadRunFirmware(profile_, why, warnings);
  LogWarnings(warnings);
  fraProduction->ShowRelease(profile_, firmware);
  fraProduction->ShowCounts(StationTally(profile_.StationCount, profile_.Mode).Counts());
  if (!why.empty()) {
    Log(Text(why));
    fraProduction->ShowRefusal(why);
  }
}

void frmPalimbo::LogWarnings(const std::vector<std::string>& Warnings) {
  for (const std::string& Warning : Warnings) Log(QStringLiteral("warning: ") + Text(Warning));
}

void frmPalimbo::RunStation() {
  job_->Cancel = false;
  station_stop_ = false;
  SetCaption(cmdStart, QLatin1String(kCancelCaption));
  upload_running_ = true;
  ProductionRun::Opening opening;
  opening.Error = profile_error_;
  if (opening.Error.empty()) opening = ProductionRun::Open(profile_);
  LogWarnings(opening.Warnings);
  if (opening.Run) {
    DriveStation(*opening.Run);
  } else {
    Log(Text(opening.Error));
    fraProduction->ShowRefusal(opening.Error);
  }
  FinishJob();
}

std::optional<std::string> frmPalimbo::ReadUnitLine() {
  fraProduction->UnitField()->setFocus();
  // The window lives on meanwhile, and nothing runs between two of its events.
  while (scanned_units_.empty() && !station_stop_ && !job_->QUnload) {
    QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
  }
  if (scanned_units_.empty()) return std::nullopt;
  std::string Line = scanned_units_.front();
  scanned_units_.pop_front();
  return Line;
}

void frmPalimbo::DriveStation(ProductionRun& Run) {
  fraProduction->ShowRelease(Run.Request(), Run.Firmware());
  fraProduction->ShowCounts(Run.Tally().Counts());
  Log(Text(Run.Description()));
  SerialBackend* Port = &services_.Port;
  std::unique_ptr<TraceBackend> Traced;
  if (std::ostream* Trace = Run.Trace(0)) {
    Traced = std::make_unique<TraceBackend>(services_.Port, services_.Clock, *Trace);
    Port = Traced.get();
  }
  ModuleJob Module(Run, 0);
  StationPump Pump(*this, Module);
  // The station's context stands in for the window's while the station runs, so that CANCEL
  // and the close box reach its jobs as they reach an upload.
  std::unique_ptr<JobContext> Own = std::exchange(
      job_,
      std::make_unique<JobContext>(*bridge_, *bridge_, Pump, *bridge_, services_.Clock, *Port));
  const std::string Name = Run.Request().Ports.front();
  const auto Stopping = [this] { return station_stop_ || job_->QUnload; };
  StationPlace Place;
  Place.Port = Name;
  Place.RunOne = [&] {
    in_module_ = true;
    ModuleResult Result = Module.Run(*job_, Traced.get());
    in_module_ = false;
    return Result;
  };
  Place.ProbePort = [&] { return ProbePort(*Port, Name, Stopping); };
  Place.Stopping = Stopping;
  Place.StopStation = [this] { station_stop_ = true; };
  if (Run.Request().AskUnit) Place.ReadUnitLine = [this] { return ReadUnitLine(); };
  Place.Units = Run.Units();
  Place.Pause = [&] {
    // A second between two looks for the port, with the window alive meanwhile.
    for (int Step = 0; Step < 10 && !Stopping(); ++Step) {
      services_.Clock.Sleep(100);
      QCoreApplication::processEvents();
    }
  };
  StationView View(*this, Run.Tally());
  RunStationPort(Place, Run.Tally(), View, Run.Record());
  Log(Text(Run.Tally().Summary()));
  if (const std::string Forwarded = Run.FinishForwarding(); !Forwarded.empty()) {
    Log(Text(Forwarded));
  }
  Own->QUnload = job_->QUnload;
  Own->Cancel = job_->Cancel;
  job_ = std::move(Own);
}

void frmPalimbo::cmdStartIn10_Click() {
  // Between a confirmed cancel and the job's return no new start is taken, not even later.
  if (upload_running_ && cmdStart->text() == QLatin1String(kStartCaption)) return;
  for (int Seconds = 10; Seconds >= 1; --Seconds) {
    SetCaption(cmdStartIn10, QStringLiteral("Starting in %1 sec").arg(Seconds));
    // The count blocks the thread on purpose: nothing else runs until it is over.
    job_->Sleep(1000);
  }
  if (cmdStart->isEnabled() && cmdStart->text() == QLatin1String(kStartCaption)) cmdStart_Click();
  if (!unloaded_) SetCaption(cmdStartIn10, QLatin1String(kStartIn10Caption));
}

void frmPalimbo::Form_QueryUnload(int& Cancel, int /*UnloadMode*/) {
  if (cmdStart->text() == QLatin1String(kCancelCaption)) {
    // A station waiting for its next module ends at once, and the window closes behind it.
    if (StationWaiting() ||
        services_.Boxes.AskYesNo(this, QLatin1String(kAppTitle), QLatin1String(kCancelQuestion))) {
      job_->Cancel = !StationWaiting();
      job_->QUnload = true;
      station_stop_ = true;
    }
    Cancel = 1;
    return;
  }
  job_->Cancel = true;
  job_->QUnload = true;
  // A job told to stop has not returned yet; it closes the window when it does.
  if (upload_running_) Cancel = 1;
}

void frmPalimbo::Form_Unload(int& /*Cancel*/) {
  if (IsPortOpen(job_->PortHandle)) Comm_close_32(services_.Port, job_->PortHandle);
  TimerRefreshPort->stop();
  unloaded_ = true;
}

void frmPalimbo::cmdBrowse_Click() {
  QString Path;
  const QString Name = ShowOpenDialog(this, QStringLiteral("Select HEX file"), Path, QString(),
                                      QLatin1String(kHexFilter), QString());
  if (Name.isEmpty()) return;
  txtFirmwareFile->setText(JoinFolderAndName(Path, Name));
}

void frmPalimbo::cmdEnglishManual_Click() {
  services_.Boxes.Show(this, EnglishManualTitle(), EnglishManualText(), BoxIcon::Information);
}

void frmPalimbo::cmdGermanManual_Click() {
  services_.Boxes.Show(this, GermanManualTitle(), GermanManualText(), BoxIcon::Information);
  services_.Boxes.Show(this, GermanSafetyTitle(), GermanSafetyNote(), BoxIcon::Critical);
}

QString frmPalimbo::LogText() const {
  QStringList Lines;
  for (int Row = 0; Row < lstStatus->count(); ++Row) Lines << lstStatus->item(Row)->text();
  return Lines.join(QLatin1Char('\n'));
}

void frmPalimbo::CopyLog() {
  QApplication::clipboard()->setText(LogText());
}

void frmPalimbo::SaveLogAs() {
  QString Path;
  const QString Name =
      ShowFileDialog(this, QStringLiteral("Save log as"), Path, QStringLiteral("palimbo-log.txt"),
                     QLatin1String(kLogFilter), QStringLiteral("txt"), kDialogSavePrompt);
  if (Name.isEmpty()) return;
  const QString FileName = JoinFolderAndName(Path, Name);
  QSaveFile File(FileName);
  bool Written = File.open(QIODevice::WriteOnly | QIODevice::Text);
  if (Written) {
    File.write(LogText().toUtf8());
    File.write("\n");
    Written = File.commit();
  }
  if (!Written) {
    services_.Boxes.Show(this, QLatin1String(kAppTitle),
                         QStringLiteral("The log could not be saved to %1: %2")
                             .arg(QDir::toNativeSeparators(FileName), File.errorString()),
                         BoxIcon::Critical);
  }
}

void frmPalimbo::ShowStatusMenu(const QPoint& Position) {
  mnuStatus->exec(lstStatus->viewport()->mapToGlobal(Position));
}

void frmPalimbo::closeEvent(QCloseEvent* Event) {
  int Refuse = 0;
  Form_QueryUnload(Refuse, 0);
  if (Refuse != 0) {
    Event->ignore();
    return;
  }
  int Unused = 0;
  Form_Unload(Unused);
  Event->accept();
}

void frmPalimbo::dragEnterEvent(QDragEnterEvent* Event) {
  const QList<QUrl> Urls = Event->mimeData()->urls();
  if (!Urls.isEmpty() && Urls.first().isLocalFile()) Event->acceptProposedAction();
}

void frmPalimbo::dropEvent(QDropEvent* Event) {
  if (production_) return;
  const QList<QUrl> Urls = Event->mimeData()->urls();
  if (Urls.isEmpty() || !Urls.first().isLocalFile()) return;
  txtFirmwareFile->setText(QDir::toNativeSeparators(Urls.first().toLocalFile()));
  Event->acceptProposedAction();
}

}  // namespace palimbo
