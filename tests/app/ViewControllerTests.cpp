#include <QCheckBox>
#include <QLabel>
#include <QLineEdit>
#include <QtTest/QTest>

#include "DialogAnswerer.hpp"
#include "MonitorHarness.hpp"
#include "app/MessageLogView.hpp"
#include "app/MyWindow.hpp"
#include "osc/codec/OSCMessage.hpp"

namespace kavrin {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

const std::pair<QString, QColor> alive("OSC IS ALIVE", QColor(0x00, 0xFF, 0x00));
const std::pair<QString, QColor> dead("OSC IS DEAD!!!", QColor(0xFF, 0x00, 0x00));

class ViewControllerTest : public test::MonitorHarness {
  protected:
    std::pair<QString, QColor> light() { return {status(), colour()}; }

    // Every line of the log view, each ended by a newline.
    QString logView() {
        auto* view = widget<MessageLogView>("MsgView");
        return view->text(0, view->lineCount());
    }

    static std::string received(const std::string& address) {
        return "Received OSC message: " + OSCMessage(address).description();
    }
};

// Before the first tick: what start-up shows, drops, the Find… window without an Avahi daemon
// (test::withoutAvahi) and the notice of a port change, none of which prints a line.
TEST_F(ViewControllerTest, StartUpFillsTheFieldsAndNothingButTheServerPrintsBeforeTheFirstTick) {
    settings->store().clear();
    settings->store().setValue("InPort", inPort);
    start();
    QStringList fields;
    for (const char* field : {"IpText", "OutPortText", "InPortText", "OutMsgText", "InMsgText"}) {
        fields << widget<QLineEdit>(field)->text();
    }
    EXPECT_EQ(fields, QStringList({"localhost", "8000", QString::number(inPort), "/eos/ping",
                                   "/eos/out/ping"}));
    EXPECT_NE(status(), "OSC IS DEAD!!!");
    EXPECT_NE(status(), "OSC IS ALIVE");

    replier.sendTo(inPort, {'h', 'e', 'l', 'l', 'o'});             // not OSC
    replier.sendTo(inPort, {'/', 'a', 0, 0, ',', 'i', 0, 0});      // an Int32 missing
    replier.sendTo(inPort, {'/', 'c', 'a', 0xC3, 0xA9, 0, 0, 0});  // not ASCII
    EXPECT_TRUE(shows("DroppedLab", "3 datagrams dropped (not OSC or undecodable)"));

    controller->showFind();
    EXPECT_TRUE(shows("FindStatusLab", "Nothing can be found: the Avahi daemon is not running."));
    EXPECT_TRUE(shows("AdvertiseStatusLab", "Not advertised: the Avahi daemon is not running."));
    widget<QCheckBox>("AdvertiseBox")->click();
    EXPECT_EQ(settings->store().value("Advertise").toString(), "false") << "stored at once";
    EXPECT_EQ(label("AdvertiseStatusLab"), "Off: this monitor is not advertised.");

    const std::uint16_t otherPort = test::freeUdpPort();
    test::DialogAnswerer user({"OK", "OK"});
    edit("InPortText", QString::number(otherPort));
    edit("InPortText", QString::number(otherPort));
    ASSERT_EQ(user.seen.size(), 2u);
    for (const auto& notice : user.seen) {
        EXPECT_EQ(notice.text, "Restart the App to change Port.");
        EXPECT_EQ(notice.informativeText, "Incoming OSC port changes will apply after restart.");
        EXPECT_THAT(notice.buttons, ElementsAre("OK"));
        EXPECT_TRUE(notice.applicationModal);
    }
    EXPECT_EQ(user.seen[0].box, user.seen[1].box) << "one notice, reused";
    EXPECT_EQ(settings->store().value("InPort").toInt(), otherPort);
    EXPECT_THAT(lines, ElementsAre("OSC Server started on port " + std::to_string(inPort)));
    EXPECT_EQ(reply("/eos/out/ping").back(),
              "Matched expected pattern '/eos/out/ping'. Setting OSCgood = true")
        << "the server keeps its port";
}

// The light: a reply whose address contains the expected text, since the tick before.
TEST_F(ViewControllerTest, EachTickPaintsWhetherAMatchingReplyArrivedSinceThePreviousOne) {
    start();
    const std::string sent = "Sent OSC ping to 127.0.0.1:" + std::to_string(pingSink.port()) +
                             " \xE2\x86\x92 pattern /eos/ping";
    const std::string noMatch =
        "No match for expected pattern '/eos/out/ping'. OSCgood remains false";

    EXPECT_EQ(tick(), sent);
    EXPECT_EQ(nextPing(), test::oscMessageBytes("/eos/ping"));
    EXPECT_EQ(light(), dead);

    EXPECT_THAT(reply("/eos/out/ping"),
                ElementsAre(received("/eos/out/ping"),
                            "Matched expected pattern '/eos/out/ping'. Setting OSCgood = true"));
    EXPECT_EQ(status(), "OSC IS DEAD!!!") << "a reply only shows at the next tick";
    tick();
    EXPECT_EQ(light(), alive);
    EXPECT_EQ(tick(), sent);
    EXPECT_EQ(light(), dead) << "a whole interval passed without a reply";

    reply("/a/eos/out/ping/b");
    EXPECT_THAT(reply("/eos/out/pong"), ElementsAre(received("/eos/out/pong"), noMatch));
    tick();
    EXPECT_EQ(status(), "OSC IS ALIVE") << "a later non-match leaves the match standing";

    // Plain containment: case-sensitive, wildcards are ordinary characters.
    for (const char* address : {"/eos/out", "/EOS/OUT/PING", "/eos/out/p*ng"}) {
        EXPECT_EQ(reply(address).back(), noMatch) << address;
    }
    edit("InMsgText", "/eos/*");
    EXPECT_THAT(reply("/eos/out/ping").back(), HasSubstr("No match"));
    tick();
    EXPECT_EQ(status(), "OSC IS DEAD!!!");

    EXPECT_EQ(logView(),
              "/eos/out/ping\n/a/eos/out/ping/b\n/eos/out/pong\n/eos/out\n/EOS/OUT/PING\n"
              "/eos/out/p*ng\n/eos/out/ping\n");

    // An empty expected text never matches, though every address contains it.
    edit("InMsgText", "");
    EXPECT_EQ(settings->store().value("Reply"), "");
    EXPECT_EQ(reply("/eos/out/ping").back(),
              "No match for expected pattern ''. OSCgood remains false");
    tick();
    EXPECT_EQ(status(), "OSC IS DEAD!!!");
    EXPECT_FALSE(ViewController::addressContains("", ""));

    // Canonically equivalent text matches: precomposed and decomposed e-acute.
    EXPECT_TRUE(ViewController::addressContains(QStringLiteral("/caf\u00E9/x"),
                                                QStringLiteral("cafe\u0301")));
    EXPECT_TRUE(ViewController::addressContains(QStringLiteral("/cafe\u0301/x"),
                                                QStringLiteral("caf\u00E9")));
}

TEST_F(ViewControllerTest, AFailedServerStartIsLoggedAndTheMonitorRunsOn) {
    test::UdpPeer holder(inPort, "0.0.0.0");  // holds the port without sharing it
    start();

    // The error's description follows.
    EXPECT_THAT(lines, ElementsAre(::testing::MatchesRegex("Failed to start OSC Server on port " +
                                                           std::to_string(inPort) + ": .+"),
                                   "OSC Server started on port " + std::to_string(inPort)));
    EXPECT_EQ(controller->advertiser().status(), "Not advertised: the OSC server is not running.");

    // A ping from the listening port cannot go; any other can. The light is red either way.
    auto* fromInPort = widget<QCheckBox>("PingFromInPortBox");
    fromInPort->click();
    EXPECT_EQ(tick(), "ERROR sending ping: The OSC server on port " + std::to_string(inPort) +
                          " is not running.");
    EXPECT_FALSE(pingSink.receive(100ms).has_value());
    EXPECT_EQ(status(), "OSC IS DEAD!!!");
    fromInPort->click();
    tick();
    EXPECT_FALSE(nextPing().empty());
    EXPECT_EQ(status(), "OSC IS DEAD!!!");
}

// As main() makes it: a floating window that cannot be closed.
TEST_F(ViewControllerTest, TheWindowFloatsAndCannotBeClosed) {
    start();
    MyWindow window(controller.get());
    window.windowDidLoad();
    controller->show();
    const auto shown = Qt::WindowStaysOnTopHint | Qt::CustomizeWindowHint | Qt::WindowTitleHint;
    EXPECT_EQ(controller->windowFlags() & (shown | Qt::WindowCloseButtonHint), shown);
    EXPECT_FALSE(controller->close());
    EXPECT_TRUE(controller->isVisible());
}

using ViewControllerDeathTest = ViewControllerTest;

TEST_F(ViewControllerDeathTest, BrokenInvariantsStopTheProgramWhereTheyAreMet) {
    start();

    // Out of range a stored port stops the tick before the send (above the range: the program
    // tests, which see nothing sent).
    edit("OutPortText", "-1");
    EXPECT_DEATH(controller->sendPing(), "fatal error: outgoing port -1 is outside 0...65535");

    delete widget<QLabel>("StatusLab");
    edit("OutPortText", QString::number(pingSink.port()));
    EXPECT_DEATH(controller->sendPing(), "fatal error: the layout has no outlet StatusLab");

    settings->store().setValue("InPort", 65536);
    EXPECT_DEATH(start(), "fatal error: incoming port 65536 is outside 0...65535");
}

}  // namespace
}  // namespace kavrin
