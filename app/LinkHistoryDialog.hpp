#pragma once

#include <QDialog>
#include <vector>

#include "app/LinkHistory.hpp"

class QLabel;
class QTableWidget;

namespace kavrin {

// The link history window: the outages, newest first, with their start, end, duration, how
// they ended and the round trips of the healthy time before each; exported as CSV through a
// file dialog. It reads the history each time it is shown or reloaded. Use from the GUI thread.
class LinkHistoryDialog : public QDialog {
    Q_OBJECT

  public:
    LinkHistoryDialog(LinkHistory& history, QWidget* parent = nullptr);

    // Reads the history again; a failure shows in the dialog.
    void reload();
    QTableWidget* table() const { return table_; }

  private:
    void exportCsv();

    LinkHistory& history_;
    std::vector<Outage> outages_;
    QTableWidget* table_;
    QLabel* summary_;
};

}  // namespace kavrin
