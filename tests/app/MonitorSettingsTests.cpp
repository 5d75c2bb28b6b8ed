#include <gtest/gtest.h>

#include <QFileInfo>
#include <QStringList>
#include <limits>
#include <memory>

#include "PrivateEnvironment.hpp"
#include "app/MonitorSettings.hpp"

namespace kavrin {
namespace {

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

TEST_F(MonitorSettingsTest, MissingAndUnusableValuesReadAsTheDefaults) {
    EXPECT_EQ(settings->store().fileName(), environment.settingsFile());
    EXPECT_EQ(settings->ip.value(), "localhost");
    EXPECT_EQ(settings->outPort.value(), 8000);
    EXPECT_EQ(settings->transport.value(), "udp");
    EXPECT_FALSE(settings->pingFromInPort.value());
    EXPECT_FALSE(settings->numberPings.value());
    EXPECT_TRUE(settings->advertise.value());

    settings->store().setValue("OutPort", 0);
    settings->store().setValue("InPort", "not a number");
    settings->store().setValue("Reply", QStringList{"two", "values"});
    settings->store().setValue("ip", "");
    settings->store().setValue("ping", 42);
    settings->store().setValue("NumberPings", "maybe");
    const auto stored = reopen();
    EXPECT_EQ(stored->outPort.value(), 8000) << "0 means the default";
    EXPECT_EQ(stored->inPort.value(), 8001);
    EXPECT_EQ(stored->reply.value(), "/eos/out/ping");
    EXPECT_EQ(stored->ip.value(), "") << "an empty string is a value";
    EXPECT_EQ(stored->ping.value(), "42");
    EXPECT_FALSE(stored->numberPings.value());
}

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

    MonitorSettings::writePort(settings->outPort, u"-5");
    MonitorSettings::writePort(settings->inPort, u"99999999999");
    const auto stored = reopen();
    EXPECT_EQ(stored->outPort.value(), -5) << "loaded unchanged, checked when used";
    EXPECT_EQ(stored->inPort.value(), 2147483647);
}

TEST_F(MonitorSettingsTest, WrittenValuesSurviveARestart) {
    settings->ip.set("");
    settings->ping.set("  /with spaces, and \u2192 commas ");
    settings->reply.set("@at sign");
    MonitorSettings::writePort(settings->inPort, u"9001");
    settings->transport.set("slip");
    settings->pingFromInPort.set(true);
    const auto stored = reopen();

    EXPECT_TRUE(QFileInfo::exists(environment.settingsFile()));
    EXPECT_EQ(stored->ip.value(), "");
    EXPECT_EQ(stored->ping.value(), "  /with spaces, and \u2192 commas ");
    EXPECT_EQ(stored->reply.value(), "@at sign");
    EXPECT_EQ(stored->inPort.value(), 9001);
    EXPECT_EQ(stored->transport.value(), "slip");
    EXPECT_TRUE(stored->pingFromInPort.value());
    EXPECT_EQ(stored->store().value("PingFromInPort").toString(), "true");
}

}  // namespace
}  // namespace kavrin
