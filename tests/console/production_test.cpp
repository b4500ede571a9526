// The window as a production station: a profile fixes port and file, START runs module after
// module through the same station as the command line, and the panel tells the result.

#include <QCryptographicHash>

#include "window_fixture.h"

namespace palimbo::testing {
namespace {

sim::ModuleSettings ReplacedAfter(int64_t Micros) {
  sim::ModuleSettings Settings;
  Settings.ReplaceAfterRebootMicros = Micros;
  return Settings;
}

class StationTest : public WindowTest {
 protected:
  StationTest() {
    QFile File(Dir.filePath("firmware.hex"));
    EXPECT_TRUE(File.open(QIODevice::WriteOnly));
    Hex = QByteArray::fromStdString(HexOf(Image));
    File.write(Hex);
  }
  // Writes the profile's object with `Keys` (without braces) and opens the window on it.
  void OpenStation(const QString& Keys, sim::SimLine& Port) {
    QFile Profile(Dir.filePath("station.json"));
    ASSERT_TRUE(Profile.open(QIODevice::WriteOnly));
    Profile.write(("{" + Keys + "}").toUtf8());
    Profile.close();
    Window = std::make_unique<frmPalimbo>(
        ConsoleServices{Scanner, Port, Time, Settings, Boxes, Profile.fileName()});
    Window->show();
  }
  QString Sha() const {
    return QString::fromLatin1(QCryptographicHash::hash(Hex, QCryptographicHash::Sha256).toHex());
  }
  QStringList Record() {
    QFile File(Dir.filePath("record.jsonl"));
    if (!File.open(QIODevice::ReadOnly)) return {};
    return QString::fromUtf8(File.readAll()).split('\n', Qt::SkipEmptyParts);
  }
  QString Shown(const char* Label) { return Find<QLabel>(Label)->text(); }

  QByteArray Hex;
  sim::SimulatedModule Modules{ReplacedAfter(2'000'000)};
  sim::SimLine StationLine{Time, Modules, "SIM"};
};

// Three modules from one click, the release locked; the file is replaced on the disk after the
// first module, and the others still get the image the station read at START.
TEST_F(StationTest, ThreeModulesFromOneStartAndTheRecordOfEach) {
  OpenStation(QString(R"("file": "firmware.hex", "port": "SIM", "record": "record.jsonl",
                         "count": 3, "expect-sha256": "%1")")
                  .arg(Sha().toUpper()),
              StationLine);
  EXPECT_EQ(Find<QComboBox>("cmbComPort")->currentText(), "SIM");
  EXPECT_EQ(QDir::fromNativeSeparators(Find<QLineEdit>("txtFirmwareFile")->text()),
            Dir.filePath("firmware.hex"));
  for (const char* Fixed : {"cmbComPort", "optAutomatic", "optSelectManually", "cmdBrowse"}) {
    EXPECT_FALSE(Find(Fixed)->isEnabled()) << Fixed;
  }
  EXPECT_TRUE(Find<QLineEdit>("txtFirmwareFile")->isReadOnly());
  EXPECT_FALSE(Window->acceptDrops());
  EXPECT_EQ(Button("cmdStart")->geometry(), QRect(128, 116, 65, 17));
  EXPECT_GT(Window->height(), Find("cmdEnglishManual")->geometry().bottom() + 90);
  EXPECT_TRUE(Shown("lblRelease").contains("firmware.hex") &&
              Shown("lblRelease").contains(Sha().left(12)) &&
              Shown("lblRelease").endsWith(" locked"))
      << Shown("lblRelease").toStdString();

  AtPump([this] { return Record().size() == 1; },
         [this] {
           QFile File(Dir.filePath("firmware.hex"));
           ASSERT_TRUE(File.open(QIODevice::WriteOnly));
           File.write(QByteArray::fromStdString(HexOf(TestImage(700))));
         });
  Button("cmdStart")->click();

  EXPECT_EQ(Modules.ReplacedCount(), 2);
  EXPECT_EQ(Modules.Flash().substr(0, Image.size()), Image);
  ASSERT_EQ(Record().size(), 3);
  for (const QString& Line : Record()) {
    EXPECT_TRUE(Line.contains(R"("outcome":"verified")") && Line.contains(Sha()))
        << Line.toStdString();
  }
  EXPECT_EQ(Shown("lblLastResult"), "VERIFIED");
  EXPECT_EQ(Shown("lblCounts"), "3 verified, 0 unverified, 0 failed");
  EXPECT_TRUE(LogTexts().contains(kSuccess));
  EXPECT_EQ(LogTexts().last(), "station: 3 modules, 3 verified, 0 unverified, 0 failed");
  EXPECT_EQ(Button("cmdStart")->text(), "START");
  EXPECT_FALSE(Settings.contains("Settings/Port"));  // the operator's own settings stay
}

// A profile that asks units: the unit field has the focus, a mis-scan is said and recorded
// nowhere, and each scanned label names one module, also one scanned before START.
TEST_F(StationTest, EachModuleTakesTheUnitScannedForIt) {
  OpenStation(R"("file": "firmware.hex", "port": "SIM", "record": "record.jsonl", "count": 2,
                 "ask-unit": true, "unit-pattern": "SN-[0-9]{4}")",
              StationLine);
  auto* Field = Find<QLineEdit>("txtUnit");
  EXPECT_EQ(Window->focusWidget(), Field);
  const auto Scan = [Field](const char* Label) {
    Field->setText(Label);
    emit Field->returnPressed();
  };
  Scan("SN-0001");
  AtPump([this] { return Record().size() == 1; },
         [&] {
           Scan("sn-2");
           Scan("SN-0002");
         });
  Button("cmdStart")->click();
  ASSERT_EQ(Record().size(), 2);
  EXPECT_TRUE(Record()[0].contains(R"("unit":"SN-0001")")) << Record()[0].toStdString();
  EXPECT_TRUE(Record()[1].contains(R"("unit":"SN-0002")")) << Record()[1].toStdString();
  EXPECT_TRUE(
      LogTexts().contains("unit 'sn-2' does not match the pattern SN-[0-9]{4}; nothing "
                          "recorded, scan the label again"));
  EXPECT_EQ(Shown("lblLastReason"), "module 2 (unit SN-0002)");
}

struct RefusedRow {
  const char* Name;
  const char* Keys;
  const char* Said;  // in the status list and on the panel
};

class RefusedProfileTest : public StationTest, public ::testing::WithParamInterface<RefusedRow> {};

// A profile that cannot run says why, and START opens no port and writes no record.
TEST_P(RefusedProfileTest, SaysWhyAndStartWritesNothing) {
  const QString Keys = QString::fromUtf8(GetParam().Keys).replace("SHA", Sha());
  OpenStation(Keys, StationLine);
  Button("cmdStart")->click();
  EXPECT_EQ(StationLine.OpenCount(), 0);
  EXPECT_FALSE(QFile::exists(Dir.filePath("record.jsonl")));
  EXPECT_EQ(Shown("lblLastResult"), "NOT READY");
  EXPECT_TRUE(Shown("lblLastReason").contains(GetParam().Said))
      << Shown("lblLastReason").toStdString();
  EXPECT_TRUE(LogTexts().last().contains(GetParam().Said)) << LogTexts().last().toStdString();
  EXPECT_EQ(Button("cmdStart")->text(), "START");
}

INSTANTIATE_TEST_SUITE_P(
    Profiles, RefusedProfileTest,
    ::testing::Values(
        RefusedRow{"AnotherRelease",
                   R"("file": "firmware.hex", "port": "SIM", "record": "record.jsonl",
                      "expect-sha256": "0000000000000000000000000000000000000000000000000000000000000000")",
                   "is not the approved 00000000"},
        RefusedRow{"FileMissing", R"("file": "gone.hex", "port": "SIM", "record": "record.jsonl")",
                   "gone.hex: cannot open"},
        RefusedRow{"RecordNotWritable",
                   R"("file": "firmware.hex", "port": "SIM", "record": "no/such/record.jsonl")",
                   "cannot open record file"},
        RefusedRow{"TwoPorts", R"("file": "firmware.hex", "port": ["SIM", "COM2"])",
                   "the window runs a station on one port"},
        RefusedRow{"UnknownKey", R"("file": "firmware.hex", "port": "SIM", "colour": 1)",
                   "unknown key 'colour'"}),
    [](const auto& Info) { return std::string(Info.param.Name); });

struct StopRow {
  const char* Name;
  bool DuringUpload;  // else while the station waits for its next module
  bool ByClose;
};

class StationStopTest : public StationTest, public ::testing::WithParamInterface<StopRow> {};

// CANCEL or the close box: during an upload the cancel question, between modules no question;
// either way the station ends, and a close closes the window behind it.
TEST_P(StationStopTest, EndsTheStation) {
  const StopRow& Row = GetParam();
  sim::SimulatedModule Slow{ReplacedAfter(60'000'000)};
  sim::SimLine SlowLine{Time, Slow, "SIM"};
  OpenStation(R"("file": "firmware.hex", "port": "SIM", "record": "record.jsonl")", SlowLine);
  Boxes.Answer = true;
  const auto Stop = [&] {
    if (Row.ByClose) {
      EXPECT_FALSE(Window->close());
    } else {
      Button("cmdStart")->click();
    }
  };
  if (Row.DuringUpload) {
    AtPump([&] { return Slow.CountOf(sim::kCmdFill) > 0; }, Stop);
  } else {
    AtPump([&] { return Record().size() == 1; }, Stop);
  }
  Button("cmdStart")->click();
  EXPECT_EQ(Boxes.Shown.size(), Row.DuringUpload ? 1 : 0);
  ASSERT_EQ(Record().size(), 1);
  EXPECT_TRUE(Record().front().contains(Row.DuringUpload ? "cancelled" : "verified"));
  EXPECT_EQ(LogTexts().last(), Row.DuringUpload
                                   ? "station: 1 modules, 0 verified, 0 unverified, 1 failed"
                                   : "station: 1 modules, 1 verified, 0 unverified, 0 failed");
  EXPECT_LT(Time.NowMicros(), 60'000'000);
  EXPECT_FALSE(SlowLine.IsOpen());
  EXPECT_EQ(Window->isVisible(), !Row.ByClose);
}

INSTANTIATE_TEST_SUITE_P(Stops, StationStopTest,
                         ::testing::Values(StopRow{"CancelDuringUpload", true, false},
                                           StopRow{"CancelWhileWaiting", false, false},
                                           StopRow{"CloseDuringUpload", true, true},
                                           StopRow{"CloseWhileWaiting", false, true}),
                         [](const auto& Info) { return std::string(Info.param.Name); });

}  // namespace
}  // namespace palimbo::testing
