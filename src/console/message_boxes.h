#pragma once

#include <QString>

class QWidget;

namespace palimbo {

/// The icon a message box shows.
enum class BoxIcon { None, Information, Critical };

/// The window's modal message boxes, in one place so that every question can be answered
/// by whoever drives the window.
class MessageBoxes {
 public:
  virtual ~MessageBoxes() = default;
  /// A question with Yes and No, No being the default, and no icon. True for Yes.
  virtual bool AskYesNo(QWidget* Owner, const QString& Title, const QString& Text) = 0;
  /// A note with an OK button; returns when the operator has closed it.
  virtual void Show(QWidget* Owner, const QString& Title, const QString& Text, BoxIcon Icon) = 0;
};

/// The toolkit's own modal boxes.
class QtMessageBoxes final : public MessageBoxes {
 public:
  bool AskYesNo(QWidget* Owner, const QString& Title, const QString& Text) override;
  void Show(QWidget* Owner, const QString& Title, const QString& Text, BoxIcon Icon) override;
};

}  // namespace palimbo
