#pragma once

#include <QWidget>

#include <memory>

#include "app/LinkHistory.hpp"

class QComboBox;

namespace kavrin {

// The round trip of every ping over time, read from the link history: a dot per ping answered
// (zoomed out, the worst of those close together), a red mark along the top for each ping lost,
// and the outages shaded. It shows the last hour, or all the history keeps (a week), chosen in
// its corner; made to be read at the main window's size. The history is read off the GUI
// thread: again at each paint for the last hour, each minute for all of it. Use from the GUI
// thread.
class RoundTripPlot : public QWidget {
    Q_OBJECT

  public:
    enum class Span { lastHour, all };

    explicit RoundTripPlot(QWidget* parent = nullptr);
    ~RoundTripPlot() override;

    // Reads `history` at once, and from then on as the span asks.
    void setHistory(LinkHistory* history);
    // Each paint of the light.
    void painted();
    void setSpan(Span span);
    Span span() const { return span_; }
    // What the plot shows now.
    const PingPlot& shown() const { return shown_; }

  signals:
    void drawn();  // a reading of the history is on screen

  private:
    class Chart;
    void refresh();
    void draw(PingPlot plot);

    LinkHistory* history_ = nullptr;
    Span span_ = Span::lastHour;
    int paintsSinceRead_ = 0;
    PingPlot shown_;
    QComboBox* spanBox_;
    std::unique_ptr<Chart> chart_;  // its Qt objects belong to this widget
};

}  // namespace kavrin
