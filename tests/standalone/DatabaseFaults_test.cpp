// Failures that are put on the device database, and the count of its statements.
#include "tests/standalone/DatabaseTest.h"

#include <QSqlField>
#include <QSqlRecord>
#include <QSqlResult>

namespace {

using EStage = SDatabaseFault::EStage;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr unsigned always = SDatabaseFault::always;

constexpr const char* s_setups = "SELECT iSetupID FROM dev_Setup";
constexpr const char* s_users = "SELECT iUserID FROM dev_User";

// "prepare", "exec", "ok": how far a statement comes, as its user does it.
std::string Try(const DeviceDBApi::CQsAutoDeviceDB& scope, const char* statement)
{
    QSqlQuery query(scope.GetDatabase());
    if (!query.prepare(QString::fromLatin1(statement)))
        return query.lastError().isValid() ? "prepare" : "prepare without words";
    if (!query.exec())
        return query.lastError().isValid() ? "exec" : "exec without words";
    return query.next() ? "ok" : "no row";
}

std::vector<std::string> TryTimes(unsigned times, const wchar_t* location, const char* statement)
{
    std::vector<std::string> results;
    const DeviceDBApi::CQsAutoDeviceDB scope(location, 0);
    for (unsigned i = 0; i < times; ++i)
        results.push_back(Try(scope, statement));
    return results;
}

std::vector<bool> ScopesOK(unsigned times, const wchar_t* location)
{
    std::vector<bool> results;
    for (unsigned i = 0; i < times; ++i)
        results.push_back(DeviceDBApi::CQsAutoDeviceDB(location, 0).IsOK());
    return results;
}

} // namespace

using DatabaseFaults = OpenDatabaseTest;
INSTANTIATE_ON_DATABASES(DatabaseFaults);

TEST_P(DatabaseFaults, StrikeAtTheirStage)
{
    EXPECT_THAT(TryTimes(1, L"here", s_setups), ElementsAre("ok"));
    CQsDeviceDatabase::SetFaults({{EStage::Prepare, L"", "", 0, always}});
    EXPECT_THAT(TryTimes(2, L"here", s_setups), ElementsAre("prepare", "prepare"));
    CQsDeviceDatabase::SetFaults({{EStage::Exec, L"", "", 0, always}});
    EXPECT_THAT(TryTimes(2, L"here", s_setups), ElementsAre("exec", "exec"));
    CQsDeviceDatabase::SetFaults({{EStage::Connection, L"", "", 0, always}});
    EXPECT_THAT(ScopesOK(2, L"here"), ElementsAre(false, false));
    EXPECT_THAT(LogLines(), ElementsAre("here: no connection to the device database: a failure that was put on",
                                        "here: no connection to the device database: a failure that was put on"));
    CQsDeviceDatabase::SetFaults({});
    EXPECT_THAT(TryTimes(1, L"here", s_setups), ElementsAre("ok"));
}

TEST_P(DatabaseFaults, StrikeAtTheirLocationAlone)
{
    CQsDeviceDatabase::SetFaults(
        {{EStage::Exec, L"there", "", 0, always}, {EStage::Connection, L"gone", "", 0, always}});
    EXPECT_THAT(TryTimes(1, L"here", s_setups), ElementsAre("ok"));
    EXPECT_THAT(TryTimes(1, L"there", s_setups), ElementsAre("exec"));
    EXPECT_THAT(TryTimes(1, L"theremore", s_setups), ElementsAre("ok"));
    EXPECT_THAT(ScopesOK(1, L"gone"), ElementsAre(false));
    // Nested scopes are told apart, whichever is the inner one.
    const DeviceDBApi::CQsAutoDeviceDB outer(L"there", 0);
    const DeviceDBApi::CQsAutoDeviceDB inner(L"here", 0);
    const DeviceDBApi::CQsAutoDeviceDB none(L"gone", 0);
    EXPECT_EQ("exec", Try(outer, s_setups));
    EXPECT_EQ("ok", Try(inner, s_setups));
    EXPECT_FALSE(none.IsOK());
}

TEST_P(DatabaseFaults, StrikeOneOfSeveralQueriesOfAScope)
{
    CQsDeviceDatabase::SetFaults({{EStage::Exec, L"here", "dev_User", 0, always}});
    const DeviceDBApi::CQsAutoDeviceDB scope(L"here", 0);
    EXPECT_EQ("ok", Try(scope, s_setups));
    EXPECT_EQ("exec", Try(scope, s_users));
    EXPECT_EQ("ok", Try(scope, s_setups));
    QSqlQuery direct(scope.GetDatabase());
    EXPECT_TRUE(direct.exec(QString::fromLatin1(s_setups)));
    EXPECT_FALSE(direct.exec(QString::fromLatin1(s_users)));
}

TEST_P(DatabaseFaults, LetSomePlacesPassAndThenStrikeAsOftenAsTheyShall)
{
    CQsDeviceDatabase::SetFaults({{EStage::Exec, L"here", "", 1, 2}});
    EXPECT_THAT(TryTimes(5, L"here", s_setups), ElementsAre("ok", "exec", "exec", "ok", "ok"));
    CQsDeviceDatabase::SetFaults({{EStage::Prepare, L"", "dev_User", 2, 1}});
    EXPECT_THAT(TryTimes(4, L"here", s_setups), ElementsAre("ok", "ok", "ok", "ok")); // no places of it
    EXPECT_THAT(TryTimes(4, L"here", s_users), ElementsAre("ok", "ok", "prepare", "ok"));
    CQsDeviceDatabase::SetFaults({{EStage::Connection, L"here", "", 1, 1}});
    EXPECT_THAT(ScopesOK(3, L"here"), ElementsAre(true, false, true));
    CQsDeviceDatabase::SetFaults({{EStage::Exec, L"", "", 3, always}});
    EXPECT_THAT(TryTimes(6, L"here", s_setups), ElementsAre("ok", "ok", "ok", "exec", "exec", "exec"));
    CQsDeviceDatabase::SetFaults({{EStage::Exec, L"", "", 0, 0}});
    EXPECT_THAT(TryTimes(2, L"here", s_setups), ElementsAre("ok", "ok"));
}

TEST_P(DatabaseFaults, CountTheirPlacesAlsoWhereAnotherStrikes)
{
    CQsDeviceDatabase::SetFaults({{EStage::Exec, L"", "", 0, 1}, {EStage::Exec, L"", "", 1, 1}});
    EXPECT_THAT(TryTimes(3, L"here", s_setups), ElementsAre("exec", "exec", "ok"));
}

TEST_P(DatabaseFaults, AreReportedLikeARealOne)
{
    CQsDeviceDatabase::SetFaults({{EStage::Prepare, L"", "", 0, always}});
    const DeviceDBApi::CQsAutoDeviceDB scope(L"here", 0);
    QSqlQuery query(scope.GetDatabase());
    EXPECT_FALSE(query.prepare(QString::fromLatin1(s_setups)));
    EXPECT_THROW(DeviceDBApi::ReportQueryErrorAndThrowException(query, scope.GetLocation(), L"Doing it - prepare",
                                                                new DeviceDBApi::DeviceDBStructureE),
                 DeviceDBApi::DeviceDBStructureE);
    EXPECT_THAT(LogLines(), ElementsAre("here: Doing it - prepare: a failure that was put on"));
}

TEST_P(DatabaseFaults, LeaveTheStatementUndone)
{
    CQsDeviceDatabase::SetFaults({{EStage::Exec, L"", "DELETE", 0, always}});
    {
        const DeviceDBApi::CQsAutoDeviceDB scope(L"here", 0);
        QSqlQuery query(scope.GetDatabase());
        EXPECT_FALSE(query.exec(QStringLiteral("DELETE FROM dev_Parameter")));
    }
    EXPECT_EQ(1, CRawConnection(Address()).Number("SELECT COUNT(*) FROM dev_Parameter"));
}

TEST_P(DatabaseFaults, OfADatabaseThatIsNotOpenAreNotCounted)
{
    CQsDeviceDatabase::SetFaults({{EStage::Connection, L"", "", 0, 1}});
    CQsDeviceDatabase::Close();
    EXPECT_THAT(ScopesOK(3, L"here"), ElementsAre(false, false, false));
    EXPECT_THAT(LogLines(), testing::IsEmpty());
    Open();
    EXPECT_THAT(ScopesOK(2, L"here"), ElementsAre(false, true));
}

TEST_P(DatabaseFaults, AreNotLookedForWhenThereAreNone)
{
    const std::size_t before = CQsDeviceDatabase::QueryCount();
    TryTimes(3, L"here", s_setups);
    EXPECT_EQ(before, CQsDeviceDatabase::QueryCount());
    CQsDeviceDatabase::CountQueries(true);
    TryTimes(3, L"here", s_setups);
    EXPECT_EQ(before + 3, CQsDeviceDatabase::QueryCount());
    DeviceDBAppHelper::SaveParam(L"key", L"text", 3, 4);
    EXPECT_EQ(before + 4, CQsDeviceDatabase::QueryCount());
    CQsDeviceDatabase::CountQueries(false);
    TryTimes(3, L"here", s_setups);
    EXPECT_EQ(before + 4, CQsDeviceDatabase::QueryCount());
}

// A watched connection answers every question as the one behind it.
TEST_P(DatabaseFaults, ChangeNothingAboutWhatTheyDoNotStrike)
{
    const auto observe = []
    {
        std::vector<std::string> seen;
        const auto see = [&seen](const QVariant& value)
        { seen.push_back(value.isNull() ? "null" : value.toString().toStdString()); };
        const DeviceDBApi::CQsAutoDeviceDB scope(L"here", 0);
        QSqlQuery query(scope.GetDatabase());
        query.prepare(QStringLiteral("SELECT iBeamPathID, sUserName FROM dev_BeamPath WHERE iSetupID = :iSetupID AND "
                                     "iBeamPathID <> :iOther ORDER BY iBeamPathID "));
        query.bindValue(QStringLiteral(":iOther"), 99, QSql::In);
        query.bindValue(QStringLiteral(":iSetupID"), 3, QSql::In);
        for (int round = 0; round < 2; ++round) // prepared once, executed again
        {
            see(query.exec());
            see(query.isActive());
            see(query.isSelect());
            see(query.size());
            see(query.at());
            see(query.isValid());
            see(query.record().count());
            see(query.record().fieldName(1).toLower());
            while (query.next())
            {
                see(query.at());
                see(query.value(0));
                see(query.value(1));
                see(query.isNull(1));
                see(query.value(0).type() == QVariant::Int || query.value(0).type() == QVariant::LongLong);
            }
            see(query.at());
            see(query.first());
            see(query.value(0));
            see(query.last());
            see(query.value(0));
            see(query.previous());
            see(query.value(0));
            see(query.seek(2));
            see(query.value(0));
            see(query.seek(9));
            query.finish();
            see(query.isActive());
        }
        query.prepare(QStringLiteral("SELECT COUNT(*) FROM dev_BeamPath WHERE iBeamPathID = ? OR sName = ?"));
        query.addBindValue(20);
        query.addBindValue(QStringLiteral("P2"));
        see(query.exec());
        see(query.next());
        see(query.value(0));
        query.setForwardOnly(true);
        see(query.exec(QStringLiteral("SELECT iSetupID FROM dev_Setup ORDER BY iSetupID")));
        see(query.next());
        see(query.value(0));
        see(query.isForwardOnly());
        see(query.exec(QStringLiteral("UPDATE dev_Parameter SET sText = 'x' WHERE iSetupID = 3")));
        see(query.numRowsAffected());
        see(query.isSelect());
        query.prepare(QStringLiteral("INSERT INTO dev_User (iUserID, sName) VALUES (?, ?)"));
        query.addBindValue(QVariantList{100, 101});
        query.addBindValue(QVariantList{QStringLiteral("a"), QStringLiteral("b")});
        see(query.execBatch());
        see(query.exec(QStringLiteral("DELETE FROM dev_User WHERE iUserID >= 100")));
        see(query.numRowsAffected());
        see(query.exec(QStringLiteral("SELECT iNone FROM dev_User")));
        see(query.lastError().type());
        QSqlDatabase database = scope.GetDatabase();
        see(database.transaction());
        see(query.exec(QStringLiteral("DELETE FROM dev_Parameter")));
        query.finish();
        see(database.rollback());
        see(query.exec(QStringLiteral("SELECT COUNT(*) FROM dev_Parameter")));
        see(query.next());
        see(query.value(0));
        see(database.tables().filter(QStringLiteral("dev_"), Qt::CaseInsensitive).size());
        see(database.isOpen());
        return seen;
    };
    const std::vector<std::string> naked = observe();
    CQsDeviceDatabase::CountQueries(true);
    const std::vector<std::string> watched = observe();
    EXPECT_EQ(naked, watched);
    EXPECT_THAT(naked, testing::Contains("Shown"));
}
