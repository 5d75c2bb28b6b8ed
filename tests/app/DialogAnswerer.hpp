#pragma once

#include <QAbstractButton>
#include <QApplication>
#include <QMessageBox>
#include <QPointer>
#include <QStringList>
#include <QTimer>

namespace kavrin::test {

// Plays the user in front of modal message boxes: each box that comes up is recorded and
// answered with the next button text of `answers`; boxes beyond the answers are rejected,
// so an unexpected dialog shows in `seen` instead of hanging the test.
class DialogAnswerer {
  public:
    struct Seen {
        QPointer<QMessageBox> box;
        QString text;
        QString informativeText;
        bool applicationModal = false;
        QStringList buttons;  // texts without mnemonics, in the order added
    };

    explicit DialogAnswerer(QStringList answers = {}) : answers_(std::move(answers)) {
        QObject::connect(&poll_, &QTimer::timeout, [this] { answer(); });
        poll_.start(10);
    }

    std::vector<Seen> seen;

  private:
    void answer() {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (box == nullptr || !box->isVisible() || box == answered_) return;
        answered_ = box;
        const QString answer = answers_.value(static_cast<qsizetype>(seen.size()));
        Seen& record = seen.emplace_back(Seen{box, box->text(), box->informativeText(),
                                              box->windowModality() == Qt::ApplicationModal, {}});
        QAbstractButton* chosen = nullptr;
        for (QAbstractButton* button : box->buttons()) {
            record.buttons << button->text().remove(QLatin1Char('&'));
            if (record.buttons.back() == answer) chosen = button;
        }
        // Clicked from the event loop, not from inside this poll.
        QTimer::singleShot(0, box, [this, box, chosen] {
            chosen ? chosen->click() : box->reject();
            answered_ = nullptr;  // a reused box may come up again
        });
    }

    QStringList answers_;
    QTimer poll_;
    QPointer<QMessageBox> answered_;
};

}  // namespace kavrin::test
