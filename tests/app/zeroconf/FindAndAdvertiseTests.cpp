// The monitor against the test run's own Avahi daemon on loopback: the Find… window fills the
// fields from the services published by avahi-publish and by the ping responder, and the monitor
// advertises its own server unless switched off. Its stdout lines stay those of its ticks.

#include <QCheckBox>
#include <QComboBox>
#include <QPushButton>
#include <QTreeWidget>

#include "../../discovery/ZeroconfTest.hpp"
#include "MonitorHarness.hpp"
#include "app/QtMainQueue.hpp"
#include "osc/discovery/OSCServiceAdvertiser.hpp"
#include "osc/discovery/OSCServiceBrowser.hpp"
#include "tests/transport/OpensslProcess.hpp"

namespace kavrin {
namespace {

using ::testing::ElementsAre;
using zeroconfTest::named;

class MonitorZeroconfTest : public test::MonitorHarness {
  protected:
    void SetUp() override {
        if (const auto skip = zeroconfTest::useTestDaemon()) GTEST_SKIP() << *skip;
    }

    // A child process that runs until the test ends, its stderr with its stdout.
    tcpTest::ChildProcess& run(const std::string& program,
                               const std::vector<std::string>& arguments) {
        return *children.emplace_back(std::make_unique<tcpTest::ChildProcess>(program, arguments));
    }

    std::vector<std::unique_ptr<tcpTest::ChildProcess>> children;
};

TEST_F(MonitorZeroconfTest, FindFillsTheLinkFromTheDeviceChosenAndTheMonitorAdvertisesUnlessOff) {
    run("avahi-publish", {"-s", named("Udp desk"), "_osc._udp", "9201"});
    run("avahi-publish", {"-s", named("Tcp desk"), "_osc._tcp", "9202"});
    run("avahi-publish", {"-s", named("Slip desk"), "_osc._tcp", "9203", "framing=slip"});
    // OSCQuery names TCP only; the responder's own _osc._tcp record says it is SLIP.
    auto& responder = run(KAVRIN_RESPONDER_PATH, {"--listen", "0", "--slip", "--advertise",
                                                  named("Query desk"), "--oscquery", "0"});
    const std::string listening = responder.linesThrough("osc_ping_responder: listening").back();
    const std::string slipPort = QString::fromStdString(listening).section(' ', 5, 5).toStdString();
    settings->store().setValue("Advertise", false);
    start();
    controller->showFind();

    const auto text = [](const QVariant& value) { return value.toString().toStdString(); };
    const struct {
        std::string name, type, port, link;
    } cases[] = {
        {named("Tcp desk"), "_osc._tcp", "9202", "tcp"},
        {named("Slip desk"), "_osc._tcp", "9203", "slip"},
        {named("Udp desk"), "_osc._udp", "9201", "udp"},
        {named("Query desk"), "_oscjson._tcp", slipPort, "slip"},
    };
    for (const auto& c : cases) {
        auto* list = widget<QTreeWidget>("DeviceList");
        QTreeWidgetItem* row = nullptr;
        // An OSCQuery row says tcp until the device's own _osc._tcp record has been seen too.
        const std::string pingsGo = c.link + " 127.0.0.1:" + c.port;
        const auto name = QString::fromStdString(c.name);
        ASSERT_TRUE(QTest::qWaitFor([&] {
            for (auto* item : list->findItems(name, Qt::MatchExactly)) {
                if (text(item->data(0, Qt::UserRole)) == c.type && text(item->text(2)) == pingsGo) {
                    row = item;
                }
            }
            return row != nullptr;
        }, 10000)) << c.name << " " << c.type << " not found as " << pingsGo << "; "
                   << text(label("FindStatusLab"));
        list->setCurrentItem(row);
        widget<QPushButton>("UseButton")->click();

        // Host, port and link, in the fields and in the settings.
        const auto field = [&](const char* name) { return text(widget<QLineEdit>(name)->text()); };
        const auto stored = [&](const char* key) { return text(settings->store().value(key)); };
        EXPECT_THAT((std::vector{field("IpText"), field("OutPortText"),
                                 text(widget<QComboBox>("TransportBox")->currentText()),
                                 stored("ip"), stored("OutPort"), stored("Transport")}),
                    ElementsAre("127.0.0.1", c.port, c.link, "127.0.0.1", c.port, c.link))
            << c.name;
        controller->showFind();  // a choice closes the window
    }

    OSCServiceBrowser browser({std::string(oscUdpServiceType)}, std::make_shared<QtMainQueue>(),
                              [](OSCServiceBrowser::Event, const OSCService&) {});
    const auto seen = [&](const auto& wanted) -> std::optional<OSCService> {
        for (const auto& service : browser.services()) {
            if (wanted(service)) return service;
        }
        return std::nullopt;
    };
    const auto monitorService = [&] { return seen([&](const auto& s) { return s.port == inPort; }); };
    // Published after the monitor started: once it is seen, the monitor's would have been too.
    const auto marker = named("Marker");
    OSCServiceAdvertiser advertiser(OSCService(marker, std::string(oscUdpServiceType), 9204));
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return seen([&](const auto& s) { return s.name == marker; }).has_value(); }, 10000));
    EXPECT_EQ(monitorService(), std::nullopt);

    auto* advertise = widget<QCheckBox>("AdvertiseBox");
    EXPECT_FALSE(advertise->isChecked());
    advertise->click();
    EXPECT_EQ(settings->store().value("Advertise").toString(), "true");
    ASSERT_TRUE(QTest::qWaitFor([&] { return monitorService().has_value(); }, 10000));
    // A name still in the daemon's cache from a test before is taken as "… #2".
    EXPECT_THAT(monitorService()->name, ::testing::StartsWith(MonitorAdvertiser::serviceName()));
    EXPECT_TRUE(
        shows("AdvertiseStatusLab",
              QString::fromStdString("Advertised as \u201c" + monitorService()->name +
                                     "\u201d: _osc._udp, port " + std::to_string(inPort) + ".")));

    advertise->click();
    EXPECT_TRUE(QTest::qWaitFor([&] { return !monitorService().has_value(); }, 10000))
        << "withdrawn";
    EXPECT_THAT(lines, ElementsAre("OSC Server started on port " + std::to_string(inPort)));
}

}  // namespace
}  // namespace kavrin
