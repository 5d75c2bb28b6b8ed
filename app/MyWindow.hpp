#pragma once

#include <QObject>
#include <QPointer>
#include <QWidget>

namespace kavrin {

// The main window's controller: makes the window a small translucent panel that floats above
// normal windows and that the user cannot close. Use from the GUI thread.
class MyWindow : public QObject {
    Q_OBJECT

  public:
    explicit MyWindow(QWidget* window, QObject* parent = nullptr);

    QWidget* window() const { return window_; }

    // Applies the window settings; call once, before the window is first shown.
    void windowDidLoad();

  protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

  private:
    QPointer<QWidget> window_;
};

}  // namespace kavrin
