#include "sync_jobs.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string>

#include "PK_Request_Client.h"
#include "keys.h"
#include "log.h"
#include "owed_reload.h"
#include "state_page.h"
#include "store.h"

std::unique_ptr<PK_SyncServer<PSYNCQUEUEARG>> m_SyncServer;

namespace {

constexpr const char* ORIGIN = "src/syncd";
constexpr const char* DOWNLOAD = "/tmp/SyncDbFile.db";
constexpr int COPY_DAMAGED = -5;  // beside the results of GetServerFile

std::string copy_path(const std::string& serverip) {
    char path[128];
    (void)std::snprintf(path, sizeof path, SERVER_DB_FORMAT, serverip.c_str());
    return path;
}

// The text comes from the wire and names a file: nothing but an address may get through.
bool names_a_server(const std::string& serverip) {
    return serverip.find_first_not_of("0123456789.") == std::string::npos;
}

// The stamp in the copy of a server's settings, cut as its sender cuts a longer one; nothing when
// there is none. The copy may be huge, and any text names one that does not exist.
std::optional<std::string> stored_dsver(const std::string& serverip, std::uint32_t most) {
    const std::unique_ptr<Store> copy = db_open_present(copy_path(serverip).c_str());
    std::string dsver;
    if (!copy || copy->get(KEY_DSVER, dsver, most) != 0) {
        return std::nullopt;
    }
    return dsver.substr(0, dsver.find('\0'));
}

// Puts the download in place and tells the DHCP wrapper. 0 or COPY_DAMAGED.
int use_download(const std::string& server) {
    const std::string target = copy_path(server);
    if (const int damaged = db_verify(DOWNLOAD); damaged != 0) {
        log_message(msg::COPY_DAMAGED, target.c_str(), store_error_text(damaged));
        return COPY_DAMAGED;
    }
    // Whoever ends between the two steps still owes the reload: the stamps will agree.
    note_reload();
    (void)put_copy_in_place(DOWNLOAD, target, Download::SOUND_DATABASE);
    reload_as_noted();
    return 0;
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
    if (dsver != stored_dsver(serverip, sizeof heartbeat.dsver)) {
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
    page::fetch_begins(server);
    (void)unlink(DOWNLOAD);  // what cannot be removed is not written to, and recv_file says so
    PK_Request_Client client;
    const int result = GetServerFile(client, server.c_str(), CONFIG_DB, DOWNLOAD);
    if (result != 0) {
        log_message(msg::FETCH_FAILED, result, ORIGIN, __LINE__);
        return page::fetch_ends(result);
    }
    (void)client.Close();
    return page::fetch_ends(use_download(server));
}
