#include <QFileInfo>
#include <QStringList>
#include <limits>
#include <tuple>

#include "PrivateEnvironment.hpp"
#include "app/MonitorSettings.hpp"

namespace kavrin {
namespace {

// Every setting, in the order MonitorSettings declares them.
using Values = std::tuple<std::string, std::int64_t, std::int64_t, std::string, std::string,
                          std::string, bool, bool, bool>;
Values values(const MonitorSettings& s) {
    return {s.ip.value(),   s.outPort.value(), s.inPort.value(),
            s.ping.value(), s.reply.value(),   s.transport.value(),
            s.pingFromInPort.value(), s.numberPings.value(), s.advertise.value()};
}

class MonitorSettingsTest : public ::testing::Test {
  protected:
    // A second look at the same file, as the next start of the program would have.
    std::unique_ptr<MonitorSettings> reopen() {
        settings.reset();
        return std::make_unique<MonitorSettings>();
    }

    test::PrivateEnvironment environment;
    std::unique_ptr<MonitorSettings> settings = std::make_unique<MonitorSettings>();
};

TEST_F(MonitorSettingsTest, PortsAreStoredAsTheLeadingNumberWithoutRangeCheck) {
    const struct {
        QString typed;
        std::int64_t stored;
    } cases[] = {
        {"  9000xyz", 9000},
        {"-5", -5},
        {"+7", 7},
        {"70000", 70000},
        {"99999999999", std::numeric_limits<std::int32_t>::max()},
        {"-99999999999", std::numeric_limits<std::int32_t>::min()},
        {"abc", 0},
        {"", 0},
        {"12 34", 12},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(MonitorSettings::writePort(settings->outPort, c.typed), c.stored)
            << c.typed.toStdString();
        EXPECT_EQ(settings->store().value("OutPort").toLongLong(), c.stored)
            << c.typed.toStdString();
    }
}

TEST_F(MonitorSettingsTest, WrittenValuesSurviveARestartAndMissingOrUnusableOnesReadAsDefaults) {
    EXPECT_EQ(settings->store().fileName(), environment.settingsFile());
    EXPECT_EQ(values(*settings), Values("localhost", 8000, 8001, "/eos/ping", "/eos/out/ping",
                                        "udp", false, false, true));

    settings->ip.set("");  // an empty string is a value
    settings->ping.set("  /with spaces, and \u2192 commas ");
    settings->reply.set("@at sign");
    MonitorSettings::writePort(settings->outPort, u"-5");  // loaded unchanged, checked when used
    MonitorSettings::writePort(settings->inPort, u"99999999999");
    settings->transport.set("slip");
    settings->pingFromInPort.set(true);
    settings = reopen();
    EXPECT_TRUE(QFileInfo::exists(environment.settingsFile()));
    EXPECT_EQ(values(*settings), Values("", -5, 2147483647, "  /with spaces, and \u2192 commas ",
                                        "@at sign", "slip", true, false, true));
    EXPECT_EQ(settings->store().value("PingFromInPort").toString(), "true");

    settings->store().setValue("OutPort", 0);  // 0 means the default
    settings->store().setValue("InPort", "not a number");
    settings->store().setValue("Reply", QStringList{"two", "values"});
    settings->store().setValue("ping", 42);
    settings->store().setValue("NumberPings", "maybe");
    EXPECT_EQ(values(*reopen()),
              Values("", 8000, 8001, "42", "/eos/out/ping", "slip", true, false, true));
}

}  // namespace
}  // namespace kavrin
