#include "keys.h"
#include "log_burst.h"
#include "slave/record_sink.h"
#include "support.h"

namespace {

class Sink : public WithFiles {
protected:
    static void apply(RecordSink& sink, std::uint32_t kind, std::string_view key,
                      std::string_view value) {
        sink.apply_data_record(make_data_record(kind, key, value).record);
    }
};

TEST_F(Sink, StoresRecordsAndStampsInTheirPlaces) {
    RecordSink sink(true);
    apply(sink, DATA_KIND_CONFIG, "dhcpcfg", "x=1");
    apply(sink, DATA_KIND_CONFIG, "dbver", "v1");
    EXPECT_FALSE(sink.has_batch());
    apply(sink, DATA_KIND_CLIENT, "client1", "old");
    apply(sink, DATA_KIND_CLIENT, "client1", "new");
    apply(sink, DATA_KIND_CLIENT, "dbverx", "");
    EXPECT_TRUE(sink.has_batch());
    apply(sink, DATA_KIND_CLIENT, "dbver", "v2");
    EXPECT_FALSE(sink.has_batch());
    EXPECT_EQ(stored(CONFIG_DB, "dhcpcfg"), "x=1");
    EXPECT_EQ(stored(CONFIG_DB, KEY_CONFIG_VERSION), "v1");
    EXPECT_EQ(stored(CONFIG_DB, KEY_CLIENT_VERSION), "v2");
    EXPECT_EQ(stored(CLIENT_DB, "client1"), "new");
    EXPECT_EQ(stored(CLIENT_DB, "dbverx"), "");
    EXPECT_EQ(stored(CONFIG_DB, DBVER_KEY), "(absent)");
    EXPECT_EQ(stored(CLIENT_DB, DBVER_KEY), "(absent)");
    EXPECT_EQ(count_of(logged(), "INFO :data 2: client1=new\n"), 1U);
}

TEST_F(Sink, ALineIsWrittenBeforeItsStampIsStored) {
    RecordSink sink(true);
    const LogBurst burst;
    apply(sink, DATA_KIND_CONFIG, "dbver", "v1");
    EXPECT_EQ(count_of(logged(), "INFO :data 1: dbver=v1\n"), 1U);
    apply(sink, DATA_KIND_CLIENT, "client1", "value");
    EXPECT_EQ(count_of(logged(), "client1"), 0U);
    apply(sink, DATA_KIND_CLIENT, "dbver", "v2");
    EXPECT_EQ(count_of(logged(), "client1=value\n"), 1U);
    EXPECT_EQ(count_of(logged(), "INFO :data 2: dbver=v2\n"), 1U);
}

TEST_F(Sink, IgnoresOtherKinds) {
    RecordSink sink(true);
    for (const std::uint32_t kind : {DATA_KIND_ALL, DATA_KIND_DISK, 4U}) {
        apply(sink, kind, "key", "value");
        apply(sink, kind, "dbver", "v9");
    }
    EXPECT_TRUE(std::filesystem::is_empty("/etc/quoradmind"));
}

TEST_F(Sink, WithholdsTheStampOfASetThatCouldNotBeStored) {
    std::filesystem::create_directory(CLIENT_DB);  // no file of records can be there
    RecordSink sink(true);
    apply(sink, DATA_KIND_CLIENT, "client1", "value");
    apply(sink, DATA_KIND_CLIENT, "dbver", "v2");
    apply(sink, DATA_KIND_CONFIG, "dbver", "v1");
    EXPECT_EQ(stored(CONFIG_DB, KEY_CLIENT_VERSION), "(absent)");
    EXPECT_EQ(stored(CONFIG_DB, KEY_CONFIG_VERSION), "v1");
    EXPECT_EQ(count_of(logged(), "ERROR :client_db_version not stored: "), 1U);
}

// The settings that follow find the file sound again.
TEST_F(Sink, WithholdsTheStampBehindASettingThatWasLost) {
    write_file(CONFIG_DB, std::string(8192, 'x'));
    RecordSink sink(true);
    apply(sink, DATA_KIND_CONFIG, "dhcpcfg", "lost");
    std::filesystem::remove(CONFIG_DB);
    apply(sink, DATA_KIND_CONFIG, "default_writeback", "stored");
    apply(sink, DATA_KIND_CONFIG, "dbver", "v1");
    EXPECT_EQ(stored(CONFIG_DB, "default_writeback"), "stored");
    EXPECT_EQ(stored(CONFIG_DB, KEY_CONFIG_VERSION), "(absent)");
    EXPECT_EQ(count_of(logged(), "ERROR :config_db_version not stored: "), 1U);
}

TEST_F(Sink, LeavesADamagedConfiguration) {
    const std::string damaged(8192, 'x');
    write_file(CONFIG_DB, damaged);
    RecordSink sink(true);
    apply(sink, DATA_KIND_CONFIG, "dhcpcfg", "x=1");
    apply(sink, DATA_KIND_CONFIG, "dbver", "v1");
    EXPECT_EQ(contents(CONFIG_DB), damaged);
    EXPECT_EQ(count_of(logged(), "ERROR :config_db_version not stored: "), 1U);
}

}  // namespace
