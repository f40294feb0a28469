#include "record_sink.h"

#include <malloc.h>

#include <string>

#include "keys.h"
#include "log.h"
#include "log_burst.h"
#include "store.h"

RecordSink::~RecordSink() {
    clients_.end(push_);
    if (push_.stored) {
        (void)malloc_trim(0);  // the cache was many small pieces
    }
}

bool RecordSink::apply_data_record(const DataRecord& record) {
    const std::string key(field_text(record.key));
    const std::string value(field_text(record.value));
    log_record(msg::RECORD_RECEIVED, static_cast<int>(record.kind), key.c_str(), value.c_str());
    if (record.kind == DATA_KIND_CLIENT || record.kind == DATA_KIND_CONFIG) {
        reception_.receives(record.kind, sizeof(PeerMessage));
    }
    if (record.kind != DATA_KIND_CLIENT || key == DBVER_KEY) {
        end_log_burst();  // lines are written before the stamp of their records is stored
    }
    if (record.kind == DATA_KIND_CLIENT && key == DBVER_KEY) {
        const bool asked = clients_.close(push_, value);
        reception_.ends(push_.whole, value);
        return asked;
    }
    if (record.kind == DATA_KIND_CLIENT) {
        clients_.put(push_, key, value);
        return false;
    }
    close_batch();
    if (record.kind == DATA_KIND_CONFIG) {
        apply_setting(key, value);
    }
    return false;
}

void RecordSink::apply_setting(const std::string& key, const std::string& value) {
    if (key != DBVER_KEY) {
        const bool stored = db_store(CONFIG_DB, key.c_str(), value.c_str());
        page::record_stored(stored);
        config_failed_ = !stored || config_failed_;
    } else if (config_failed_) {
        log_message(msg::STAMP_OF_BROKEN_SET, KEY_CONFIG_VERSION);
        reception_.ends(false, value);
    } else {
        reception_.ends(db_store(CONFIG_DB, KEY_CONFIG_VERSION, value.c_str()), value);
    }
}
