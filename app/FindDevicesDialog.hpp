#pragma once

#include <QDialog>
#include <memory>

#include "app/DeviceChoice.hpp"

class QCheckBox;
class QLabel;
class QPushButton;
class QTreeWidget;

namespace kavrin {

class DeviceFinder;
class DispatchQueue;
class MonitorAdvertiser;

// The Find… window: the OSC devices on the network as they come and go, each with where its
// pings would go, and the monitor's own advertising with its switch (the "Advertise" box).
// Choosing a device (double-click, or Use) emits chosen() and closes the window. It looks for
// devices from when it is made until it is destroyed. Use from the GUI thread.
class FindDevicesDialog : public QDialog {
    Q_OBJECT

  public:
    FindDevicesDialog(std::shared_ptr<DispatchQueue> mainQueue, MonitorAdvertiser& advertiser,
                      bool advertise, QWidget* parent = nullptr);

  signals:
    void chosen(const kavrin::DeviceChoice& choice);
    void advertiseToggled(bool on);

  private:
    void showDevices();
    void enableUse();
    void choose();

    DeviceFinder* finder_;  // a child
    MonitorAdvertiser& advertiser_;
    QLabel* status_;
    QTreeWidget* list_;
    QPushButton* use_;
    QCheckBox* advertise_;
    QLabel* advertiseStatus_;
};

}  // namespace kavrin
