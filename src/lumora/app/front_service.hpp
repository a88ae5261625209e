#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "lumora/app/front_protocol.hpp"
#include "lumora/app/lumora_app.hpp"
#include "lumora/hooks/front_socket_server.hpp"

namespace lumora {

// The service's side of the face socket: it publishes the app's state to
// every attached face (one line at once, one per change) and carries out
// what they ask: decisions on held prompts, "saw this row", jumps. Lives on
// the main loop; the socket has a thread of its own, so a slow face never
// holds up the app.
class FrontService : private FrontSocketServer::Handler {
public:
    // Serves the face socket beside `hookSocket` for `app` (which must outlive it).
    FrontService(LumoraApp& app, const std::filesystem::path& hookSocket,
                 FrontSocketServer::Limits limits = {});
    ~FrontService() override;

    // Starts serving and sends the first state; says why it cannot.
    Status start();
    void stop();

    // The state as faces see it now.
    FrontProtocol::State state() const;
    size_t clientCount() const { return server_.clientCount(); }
    const std::filesystem::path& socketPath() const { return server_.socketPath(); }

private:
    void onLines(FrontSocketServer::ClientId client, std::vector<std::string> lines, std::function<void()> done) override;
    void onClosed(FrontSocketServer::ClientId client) override;

    // Encodes and sends the state once per turn of the main loop, however many changes came.
    void scheduleBroadcast();
    void broadcastNow();
    void handle(FrontSocketServer::ClientId client, const FrontProtocol::Command& command);
    void updateFaces();

    LumoraApp& app_;
    FrontSocketServer server_;
    bool started_ = false;
    bool broadcastPosted_ = false;
    std::set<FrontSocketServer::ClientId> answering_;  // faces that show buttons
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

// The decision a face asked for, carried out on the prompt the app itself
// shows for `sessionId` with number `gateId` (never one a face describes):
// nothing happens when no such prompt is shown or held any more. Returns
// whether the prompt was still held, so the decision reached its agent.
bool decideShown(LumoraApp& app, const std::string& sessionId, uint64_t gateId, ApprovalChoice::Kind kind);

}  // namespace lumora
