#include "app/LinkHistoryDialog.hpp"

#include <QDateTime>
#include <QDialogButtonBox>
#include <QSaveFile>
#include <QFileDialog>
#include <QHeaderView>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QStandardPaths>
#include <QTableWidget>
#include <QVBoxLayout>

#include "app/LinkStatusText.hpp"
#include "app/OutageCsv.hpp"

namespace kavrin {
namespace {

using namespace std::chrono;

QString localTime(Outage::TimePoint at) {
    return QDateTime::fromMSecsSinceEpoch(duration_cast<milliseconds>(at.time_since_epoch()).count())
        .toString(QStringLiteral("yyyy-MM-dd HH:mm:ss"));
}

QString roundTrip(std::optional<microseconds> time) {
    return time ? roundTripText(*time) : QStringLiteral("\u2013");
}

}  // namespace

LinkHistoryDialog::LinkHistoryDialog(LinkHistory& history, QWidget* parent)
    : QDialog(parent), history_(history), table_(new QTableWidget(this)), summary_(new QLabel(this)) {
    setWindowTitle(tr("Link History"));
    resize(760, 360);
    table_->setColumnCount(6);
    table_->setHorizontalHeaderLabels({tr("Down from"), tr("Down until"), tr("Duration"),
                                       tr("Ended by"), tr("Round trip before: median"),
                                       tr("worst")});
    table_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    table_->setSelectionBehavior(QAbstractItemView::SelectRows);
    table_->verticalHeader()->hide();
    table_->horizontalHeader()->setSectionResizeMode(QHeaderView::ResizeToContents);

    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
    QPushButton* exportButton = buttons->addButton(tr("Export CSV\u2026"), QDialogButtonBox::ActionRole);
    connect(exportButton, &QPushButton::clicked, this, &LinkHistoryDialog::exportCsv);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(summary_);
    layout->addWidget(table_);
    layout->addWidget(buttons);
}

void LinkHistoryDialog::reload() {
    try {
        outages_ = history_.outages();
        summary_->setText(tr("%1 %2, newest first; times are local. Kept in %3")
                              .arg(outages_.size())
                              .arg(outages_.size() == 1 ? tr("outage") : tr("outages"))
                              .arg(QString::fromStdString(history_.file().string())));
    } catch (const LinkHistory::Error& error) {
        outages_.clear();
        summary_->setText(tr("The history cannot be read: %1").arg(error.what()));
    }
    const auto now = system_clock::now();
    table_->setRowCount(static_cast<int>(outages_.size()));
    for (int row = 0; row < table_->rowCount(); ++row) {
        const Outage& outage = outages_[static_cast<std::size_t>(row)];
        const QStringList cells = {
            localTime(outage.started),
            outage.ended ? localTime(*outage.ended) : QString(),
            durationText(duration_cast<milliseconds>(outage.ended.value_or(now) - outage.started)),
            QString::fromLatin1(Outage::endName(outage.end)),
            roundTrip(outage.medianRoundTrip),
            roundTrip(outage.worstRoundTrip),
        };
        for (int column = 0; column < cells.size(); ++column) {
            table_->setItem(row, column, new QTableWidgetItem(cells[column]));
        }
    }
}

void LinkHistoryDialog::exportCsv() {
    const QString file = QFileDialog::getSaveFileName(
        this, tr("Export Link History"),
        QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation) +
            QStringLiteral("/kavrin-link-history.csv"),
        tr("CSV files (*.csv)"));
    if (file.isEmpty()) return;
    QSaveFile out(file);
    if (!out.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
        out.write(outagesCsv(outages_, system_clock::now())) < 0 || !out.commit()) {
        QMessageBox::warning(this, tr("Export Link History"),
                             tr("Cannot write %1: %2").arg(file, out.errorString()));
    }
}

}  // namespace kavrin
