#pragma once

#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QProcess>

#include "PrivateEnvironment.hpp"

namespace kavrin::test {

// A child process whose standard output is read line by line: the built monitor, or a peer.
// Killed if it still runs when it goes; every wait has a bound.
class MonitorProgram : public QProcess {
  public:
    ~MonitorProgram() override {
        if (state() != QProcess::NotRunning) {
            kill();
            waitForFinished(5000);
        }
    }

    // Starts the built monitor on the private settings and data of `environment`, on Qt's
    // offscreen platform unless `variables` name another.
    void startMonitor(const PrivateEnvironment& environment,
                      QProcessEnvironment variables = QProcessEnvironment::systemEnvironment()) {
        if (!variables.contains("QT_QPA_PLATFORM")) variables.insert("QT_QPA_PLATFORM", "offscreen");
        variables.insert("XDG_CONFIG_HOME", environment.configHome());
        variables.insert("XDG_DATA_HOME", environment.dataHome());
        setProcessEnvironment(variables);
        startProgram(KAVRIN_MONITOR_PATH, {});
    }

    // Starts `program`: the monitor, or one of its peers.
    void startProgram(const QString& program, const QStringList& arguments) {
        start(program, arguments);
        ASSERT_TRUE(waitForStarted(10000)) << program.toStdString() << ": "
                                           << errorString().toStdString();
    }

    // Ends the program as SIGTERM does, through its quit flow, expecting it to end normally;
    // its stderr.
    std::string quit() {
        terminate();
        EXPECT_TRUE(waitForFinished(10000)) << "still running";
        const std::string errors = readAllStandardError().toStdString();
        EXPECT_EQ(exitStatus(), QProcess::NormalExit) << errors;
        EXPECT_EQ(exitCode(), 0) << errors;
        printed += readAllStandardOutput();
        return errors;
    }

    // The next whole line of stdout, without its newline; empty on timeout.
    std::string nextLine(int timeoutMs = 10000) {
        QElapsedTimer waited;
        waited.start();
        while (!canReadLine()) {
            const int left = timeoutMs - static_cast<int>(waited.elapsed());
            if (left <= 0 || !waitForReadyRead(left)) {
                ADD_FAILURE() << "no line from " << program().toStdString()
                              << "; stderr: " << readAllStandardError().toStdString();
                return {};
            }
        }
        const QByteArray line = readLine();
        printed += line;
        return line.chopped(1).toStdString();
    }

    // Reads lines up to and including the one starting with `prefix`, and returns them all.
    std::vector<std::string> linesThrough(const std::string& prefix) {
        std::vector<std::string> lines;
        do {
            lines.push_back(nextLine());
        } while (!lines.back().empty() && lines.back().rfind(prefix, 0) != 0);
        return lines;
    }

    QByteArray printed;  // all of stdout read so far
};

}  // namespace kavrin::test
