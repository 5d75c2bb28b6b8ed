#pragma once

#include <QObject>
#include <csignal>
#include <memory>
#include <vector>

class QSocketNotifier;

namespace kavrin {

// Turns SIGINT and SIGTERM into a Qt signal on the GUI thread, so that they go through the
// same quit flow as the Quit action. The handler only writes the signal number to a pipe,
// which the event loop watches. One instance at a time; create and destroy it on the GUI
// thread. Destroying it restores the default dispositions.
class QuitSignalNotifier : public QObject {
    Q_OBJECT

  public:
    explicit QuitSignalNotifier(std::vector<int> signalNumbers = {SIGINT, SIGTERM},
                                QObject* parent = nullptr);
    ~QuitSignalNotifier() override;

  signals:
    void activated(int signalNumber);

  private:
    void readPipe();

    std::vector<int> signalNumbers_;
    int pipe_[2] = {-1, -1};
    std::unique_ptr<QSocketNotifier> notifier_;  // goes before the pipe closes
};

}  // namespace kavrin
