#pragma once

// The real window on the offscreen platform, with its surroundings replaced by doubles that a
// test can script: an adapter scanner, message boxes, and a module on a virtual-time line.

#include <gtest/gtest.h>

#include "qt_printers.h"

#include <QApplication>
#include <QComboBox>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QPushButton>
#include <QRadioButton>
#include <QSettings>
#include <QTemporaryDir>
#include <QTimer>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "adapter/port_selection.h"
#include "console/frmPalimbo.h"
#include "console/message_boxes.h"
#include "console/progress_surface.h"
#include "sim/sim_line.h"
#include "sim/simulated_module.h"
#include "sim/virtual_clock.h"

namespace palimbo::testing {

/// An adapter scan whose result the test sets; counts the scans.
class FakeScanner final : public AdapterScanner {
 public:
  AdapterScanResult Result;
  int Scans = 0;
  AdapterScanResult ScanForAdapter() override {
    ++Scans;
    return Result;
  }
};

/// Message boxes answered from a script; every box is recorded.
class ScriptedBoxes final : public MessageBoxes {
 public:
  struct Box {
    QString Title;
    QString Text;
    BoxIcon Icon = BoxIcon::None;
    bool Question = false;
  };
  std::vector<Box> Shown;
  bool Answer = false;

  bool AskYesNo(QWidget*, const QString& Title, const QString& Text) override {
    Shown.push_back({Title, Text, BoxIcon::None, true});
    return Answer;
  }
  void Show(QWidget*, const QString& Title, const QString& Text, BoxIcon Icon) override {
    Shown.push_back({Title, Text, Icon, false});
  }
};

/// The job's clock: virtual time, with a look at each sleep.
class WatchedClock final : public Clock {
 public:
  explicit WatchedClock(sim::VirtualClock& Inner) : inner_(Inner) {}
  std::function<void(int32_t)> OnSleep;
  int64_t GetTickCount() override { return inner_.GetTickCount(); }
  void Sleep(int32_t Milliseconds) override {
    if (OnSleep) OnSleep(Milliseconds);
    inner_.Sleep(Milliseconds);
  }

 private:
  sim::VirtualClock& inner_;
};

/// Runs `Action` once, at the first event pump at which `Condition` holds.
class PumpHook {
 public:
  PumpHook(std::function<bool()> Condition, std::function<void()> Action)
      : condition_(std::move(Condition)), action_(std::move(Action)) {
    timer_.setInterval(0);
    QObject::connect(&timer_, &QTimer::timeout, [this] {
      if (done_ || !condition_()) return;
      done_ = true;
      timer_.stop();
      action_();
    });
    timer_.start();
  }
  bool Done() const { return done_; }

 private:
  QTimer timer_;
  std::function<bool()> condition_;
  std::function<void()> action_;
  bool done_ = false;
};

/// Answers the next modal widget of type `T` the toolkit opens, once it stands open.
template <typename T>
void AnswerNextModal(std::function<void(T*)> Answer) {
  auto* Poll = new QTimer;
  Poll->setInterval(5);
  QObject::connect(Poll, &QTimer::timeout, [Poll, Answer] {
    auto* Modal = qobject_cast<T*>(QApplication::activeModalWidget());
    if (Modal == nullptr || !Modal->isVisible()) return;
    Poll->stop();
    Poll->deleteLater();
    Answer(Modal);
  });
  Poll->start();
}

/// The path of an Intel HEX file of `Image` in `Dir`.
std::string WriteHexFile(const QTemporaryDir& Dir, const std::string& Image);

/// A test image: `Size` bytes of a repeating pattern.
std::string PatternImage(size_t Size);

class WindowTest : public ::testing::Test {
 protected:
  static constexpr char kSimPort[] = "SIM";

  WindowTest();
  ~WindowTest() override;

  /// Creates and shows the window; the store holds whatever the test put there before.
  /// `Real` gives the window the toolkit's own message boxes instead of the scripted ones.
  void Open(MessageBoxes* Real = nullptr);
  frmPalimbo& Window() { return *window_; }

  template <typename T>
  T* Find(const char* Name) {
    T* Found = window_->findChild<T*>(QString::fromLatin1(Name));
    EXPECT_NE(Found, nullptr) << Name;
    return Found;
  }
  QPushButton* Button(const char* Name) { return Find<QPushButton>(Name); }
  QString Stored(const char* Key) {
    return Settings.value(QStringLiteral("Settings/") + Key).toString();
  }
  bool IsStored(const char* Key) { return Settings.contains(QStringLiteral("Settings/") + Key); }
  QStringList LogTexts();  ///< the status lines without their time stamps

  /// Manual mode with the simulated port typed in, and `Image` as the firmware file.
  void PrepareUpload(const std::string& Image);

  QTemporaryDir Dir;
  QSettings Settings;
  FakeScanner Scanner;
  ScriptedBoxes Boxes;
  QtMessageBoxes RealBoxes;
  sim::VirtualClock Virtual;
  WatchedClock JobClock{Virtual};
  sim::SimulatedModule Module;
  sim::SimLine Line{Virtual, Module, kSimPort};

 private:
  std::unique_ptr<frmPalimbo> window_;
};

}  // namespace palimbo::testing
