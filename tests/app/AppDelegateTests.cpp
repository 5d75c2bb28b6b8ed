#include <QFile>
#include <QFileInfo>

#include "DialogAnswerer.hpp"
#include "PrivateEnvironment.hpp"
#include "app/AppDelegate.hpp"

namespace kavrin {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Reply = AppDelegate::TerminateReply;
using Rows = test::SqliteFile::Rows;

// Another connection to the store that holds its write lock, as another process might.
class StoreLock : public test::SqliteFile {
  public:
    explicit StoreLock(const QString& path) : SqliteFile(path) { rows("BEGIN EXCLUSIVE"); }
    // What the store holds under "key".
    Rows key() { return rows("SELECT value FROM objects WHERE key = 'key'"); }
    void release() { rows("ROLLBACK"); }
};

class AppDelegateTest : public ::testing::Test {
  protected:
    StoreContext& context() { return delegate->persistentContainer().viewContext(); }

    test::PrivateEnvironment environment;
    std::unique_ptr<AppDelegate> delegate = std::make_unique<AppDelegate>();
};

TEST_F(AppDelegateTest, TheStoreIsMadeOnDemandAndAnEditorThatCannotCommitCancelsTheQuitOnly) {
    EXPECT_FALSE(QFileInfo::exists(environment.storeFile())) << "made on the first request";
    test::DialogAnswerer user;
    EXPECT_EQ(delegate->applicationShouldTerminate(), Reply::now);
    EXPECT_TRUE(QFileInfo::exists(environment.storeFile()));

    bool commits = false;
    context().addEditor([&] { return commits; });
    context().setValue("key", "value");
    EXPECT_EQ(delegate->applicationShouldTerminate(), Reply::cancel);
    delegate->saveAction();
    EXPECT_FALSE(context().hasChanges()) << "the save carries on";
    EXPECT_EQ(StoreLock(environment.storeFile()).key(), Rows{{"value"}});
    commits = true;
    EXPECT_EQ(delegate->applicationShouldTerminate(), Reply::now);
    EXPECT_TRUE(user.seen.empty());
}

TEST_F(AppDelegateTest, AFailedSaveIsShownAndAtQuitAsksWhetherToQuitAnyway) {
    context().setValue("key", "unsaved");
    StoreLock lock(environment.storeFile());
    {
        test::DialogAnswerer user({"OK"});
        delegate->saveAction();
        ASSERT_EQ(user.seen.size(), 1u);
        EXPECT_THAT(user.seen[0].text.toStdString(), HasSubstr("database is locked"));
        EXPECT_TRUE(context().hasChanges()) << "the edits stay pending";
    }
    {
        test::DialogAnswerer cancelling({"OK", "Cancel"});
        EXPECT_EQ(delegate->applicationShouldTerminate(), Reply::cancel);
        ASSERT_EQ(cancelling.seen.size(), 2u);
        EXPECT_THAT(cancelling.seen[0].text.toStdString(), HasSubstr("database is locked"));
        const auto& question = cancelling.seen[1];
        EXPECT_EQ(question.text, "Could not save changes while quitting. Quit anyway?");
        EXPECT_EQ(question.informativeText,
                  "Quitting now will lose any changes you have made since the last successful "
                  "save");
        EXPECT_THAT(question.buttons, ElementsAre("Quit anyway", "Cancel"));
        EXPECT_TRUE(question.applicationModal);
        EXPECT_TRUE(context().hasChanges()) << "cancelling keeps the edits for a later save";
    }
    {
        test::DialogAnswerer quitting({"OK", "Quit anyway"});
        EXPECT_EQ(delegate->applicationShouldTerminate(), Reply::now);
        EXPECT_EQ(quitting.seen.size(), 2u);
    }

    lock.release();
    test::DialogAnswerer nobody;
    EXPECT_EQ(delegate->applicationShouldTerminate(), Reply::now);
    EXPECT_TRUE(nobody.seen.empty());
    EXPECT_EQ(lock.key(), Rows{{"unsaved"}});
}

TEST(AppDelegateDeathTest, AStoreThatWillNotLoadIsFatal) {
    test::PrivateEnvironment environment;
    QFile blocker(environment.dataHome());  // a file where the data directory should be
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    AppDelegate delegate;
    EXPECT_DEATH(delegate.persistentContainer(), "kavrin: fatal error: Unresolved error .*Kavrin");
}

}  // namespace
}  // namespace kavrin
