#pragma once

#include <QAbstractScrollArea>
#include <QString>
#include <cstddef>
#include <string_view>

#include "app/LineStore.hpp"

namespace kavrin {

// The log of received addresses: one line each, never trimmed, always scrolled to the newest.
// Lines are kept in a LineStore and only the visible ones are painted, so memory grows by
// little more than the text and scrolling to the end costs the same at any length. A line is
// stored at once and shown within 25 ms, together with those that came meanwhile. Lines are selected with
// the mouse (Shift extends) or Select All, and copied with Copy. Use from the GUI thread.
class MessageLogView : public QAbstractScrollArea {
    Q_OBJECT

  public:
    explicit MessageLogView(QWidget* parent = nullptr);

    void append(std::string_view line);
    std::size_t lineCount() const { return lines_.size(); }
    QString line(std::size_t index) const;
    // The lines from `first` through `last`, each ended by a newline.
    QString text(std::size_t first, std::size_t last) const;

  protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void changeEvent(QEvent* event) override;

  private:
    void refresh();
    int lineHeight() const;
    int visibleLines() const;
    std::size_t lineAt(int y) const;

    LineStore lines_;
    bool refreshPosted_ = false;
    int widest_ = 0;               // pixels of the longest line, as last measured
    std::size_t measured_ = 0;     // how many lines `widest_` has seen
    std::size_t anchor_ = 0;       // selection: the lines between anchor_ and current_
    std::size_t current_ = 0;
    bool selected_ = false;
};

}  // namespace kavrin
