#include "sync_jobs.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "PK_Request_Client.h"
#include "keys.h"
#include "log.h"
#include "owned.h"
#include "services.h"
#include "store.h"

std::unique_ptr<PK_SyncServer<PSYNCQUEUEARG>> m_SyncServer;

namespace {

constexpr const char* ORIGIN = "src/syncd";
constexpr const char* DOWNLOAD = "/tmp/SyncDbFile.db";

std::string copy_path(const std::string& serverip) {
    char path[128];
    (void)std::snprintf(path, sizeof path, SERVER_DB_FORMAT, serverip.c_str());
    return path;
}

// The text comes from the wire and names a file: nothing but an address may get through.
bool names_a_server(const std::string& serverip) {
    return serverip.find_first_not_of("0123456789.") == std::string::npos;
}

}  // namespace

bool start_work_server() {
    m_SyncServer.reset(new (std::nothrow) PK_SyncServer<PSYNCQUEUEARG>);
    if (!m_SyncServer) {
        log_message(msg::NO_JOB_SERVER, strerror(errno), ORIGIN, __LINE__);
        return false;
    }
    if (m_SyncServer->Start() != 0) {
        log_message(msg::JOB_SERVER_NOT_STARTED, ORIGIN, __LINE__);
        (void)m_SyncServer->Stop();
        m_SyncServer.reset();
        return false;
    }
    return true;
}

void check_server_dsver(const HeartbeatBody& heartbeat) {
    const std::string serverip(field_text(heartbeat.serverip));
    const std::string dsver(field_text(heartbeat.dsver));
    log_message(msg::HEARTBEAT_RECEIVED, serverip.c_str(), dsver.c_str());
    if (dsver.empty()) {
        return;
    }
    if (!names_a_server(serverip)) {
        log_message(msg::HEARTBEAT_WITHOUT_ADDRESS, serverip.c_str());
        return;
    }
    const OwnedText stored(db_get(copy_path(serverip).c_str(), KEY_DSVER));
    // A longer stamp was cut by its sender.
    if (!stored || dsver != text_of(stored).substr(0, sizeof heartbeat.dsver)) {
        add_to_sync_config_db(serverip.c_str());
    }
}

void add_to_sync_config_db(const char* server) {
    if (server == nullptr) {
        return;
    }
    std::unique_ptr<tag_SyncQueueArg> arg(new (std::nothrow) tag_SyncQueueArg());
    if (!arg) {
        return;
    }
    log_message(msg::FETCH_QUEUED, server, "add_to_sync_config_db", __LINE__);
    arg->op = SYNC_OP_GET_DB;
    std::memcpy(arg->server, server, strnlen(server, sizeof arg->server));
    if (m_SyncServer && m_SyncServer->AddSyncWork(arg.get(), SyncQueueProcessor) == 0) {
        (void)arg.release();  // the job's now
    }
}

int SyncQueueProcessor(PSYNCQUEUEARG arg) {
    const std::unique_ptr<tag_SyncQueueArg> owned(arg);
    if (arg == nullptr) {
        return 0;
    }
    log_message(msg::JOB_BEGINS, static_cast<int>(arg->op), "SyncQueueProcessor", __LINE__);
    const std::string server(field_text(arg->server));
    if (arg->op != SYNC_OP_GET_DB || server.empty()) {
        return 0;
    }
    (void)unlink(DOWNLOAD);
    PK_Request_Client client;
    const int result = GetServerFile(client, server.c_str(), CONFIG_DB, DOWNLOAD);
    if (result != 0) {
        log_message(msg::FETCH_FAILED, result, ORIGIN, __LINE__);
        return result;
    }
    (void)client.Close();
    (void)put_copy_in_place(DOWNLOAD, copy_path(server));
    refresh_dhcp();
    return 0;
}
