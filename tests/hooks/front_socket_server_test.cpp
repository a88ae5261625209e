// The face socket on a real Unix socket: faces get the newest state at once
// and every change after, a face that stops reading is dropped without
// holding up the rest, and a flood of commands waits in its own socket.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "hooks/socket_client.hpp"
#include "lumora/hooks/front_connection.hpp"
#include "lumora/hooks/front_socket_server.hpp"
#include "support/test_support.hpp"

using namespace lumora;
using namespace lumora::test;
using namespace std::chrono_literals;

namespace {

// Keeps what the server hands it; answers batches when told to.
class Recorder : public FrontSocketServer::Handler {
public:
    void onLines(FrontSocketServer::ClientId client, std::vector<std::string> lines, std::function<void()> done) override {
        std::lock_guard lock(mutex_);
        for (auto& l : lines) lines_.push_back(std::move(l));
        ++batches_;
        if (holdBatches_) held_.push_back(std::move(done));
        else done();
        cv_.notify_all();
    }
    void onClosed(FrontSocketServer::ClientId) override {
        std::lock_guard lock(mutex_);
        ++closed_;
        cv_.notify_all();
    }
    template <typename Pred>
    bool waitFor(Pred pred, std::chrono::milliseconds timeout = 10s) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, timeout, [&] { return pred(*this); });
    }
    void releaseHeld() {
        std::vector<std::function<void()>> held;
        {
            std::lock_guard lock(mutex_);
            held.swap(held_);
            holdBatches_ = false;
        }
        for (auto& d : held) d();
    }

    std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<std::string> lines_;
    int batches_ = 0;
    int closed_ = 0;
    bool holdBatches_ = false;
    std::vector<std::function<void()>> held_;
};

struct Served {
    TempDir dir;
    fs::path hookSocket = dir / "run/notch.sock";
    Recorder recorder;
    std::unique_ptr<FrontSocketServer> server;
    explicit Served(FrontSocketServer::Limits limits = {}) {
        fs::create_directories(dir / "run");
        ::chmod((dir / "run").c_str(), 0700);
        server = std::make_unique<FrontSocketServer>(FrontSocketServer::pathBeside(hookSocket), recorder, limits);
        EXPECT_TRUE(server->start().ok);
    }
};

}  // namespace

TEST(FrontSocketServer, FacesGetTheNewestStateAtOnceAndEveryChangeAfter) {
    Served s;
    EXPECT_EQ(s.server->socketPath(), s.dir / "run/notch.faces.sock");
    struct stat st{};
    ASSERT_EQ(::stat(s.server->socketPath().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    s.server->broadcast("state 1\n");
    s.server->broadcast("state 2\n");
    auto face = FrontConnection::connect(s.server->socketPath());
    ASSERT_TRUE(face);
    EXPECT_EQ(face->readLine(5s), "state 2");  // only the newest, at once
    s.server->broadcast("state 3\n");
    EXPECT_EQ(face->readLine(5s), "state 3");

    // Commands arrive in order, one batch at a time.
    ASSERT_TRUE(face->send("one\ntwo\n"));
    ASSERT_TRUE(s.recorder.waitFor([](Recorder& r) { return r.lines_.size() == 2; }));
    EXPECT_EQ(s.recorder.lines_, (std::vector<std::string>{"one", "two"}));

    // Many changes while a face is not looking: it gets the newest, not a backlog.
    for (int i = 4; i <= 500; ++i) s.server->broadcast("state " + std::to_string(i) + "\n");
    std::string last;
    while (auto line = face->readLine(300ms)) last = *line;
    EXPECT_EQ(last, "state 500");

    // Stopping closes every face and removes the socket.
    s.server->stop();
    EXPECT_FALSE(face->readLine(2s));
    EXPECT_TRUE(face->closed());
    EXPECT_FALSE(fs::exists(s.dir / "run/notch.faces.sock"));
}

TEST(FrontSocketServer, AFaceThatStopsReadingIsDroppedAndTheOthersKeepUp) {
    FrontSocketServer::Limits limits;
    limits.stallTimeout = 300ms;
    Served s(limits);
    std::string big(512 * 1024, 'x');
    s.server->broadcast(big + "\n");
    SocketClient sleeper(s.server->socketPath());  // connects and never reads
    ASSERT_TRUE(sleeper.connected());
    auto reader = FrontConnection::connect(s.server->socketPath());
    ASSERT_TRUE(reader);
    EXPECT_EQ(reader->readLine(5s)->size(), big.size());
    for (int i = 0; i < 20; ++i) {
        s.server->broadcast(std::to_string(i) + big + "\n");
        auto line = reader->readLine(5s);
        ASSERT_TRUE(line);
        EXPECT_EQ(line->substr(0, std::to_string(i).size()), std::to_string(i));
    }
    ASSERT_TRUE(s.recorder.waitFor([](Recorder& r) { return r.closed_ == 1; }));
    EXPECT_EQ(s.server->clientCount(), 1u);
}

TEST(FrontSocketServer, FloodsWaitInTheirOwnSocketAndLongLinesDropTheirFace) {
    FrontSocketServer::Limits limits;
    limits.maxLineBytes = 1024;
    limits.maxClients = 3;
    Served s(limits);
    s.recorder.holdBatches_ = true;
    SocketClient flooder(s.server->socketPath());
    ASSERT_TRUE(flooder.connected());
    std::string lines;
    for (int i = 0; i < 200; ++i) lines += "decide " + std::to_string(i) + "\n";
    ASSERT_TRUE(flooder.send(lines));
    ASSERT_TRUE(s.recorder.waitFor([](Recorder& r) { return r.batches_ == 1; }));
    std::this_thread::sleep_for(100ms);
    {
        // Until the handler is done with a batch, nothing more is read from that face.
        std::lock_guard lock(s.recorder.mutex_);
        EXPECT_EQ(s.recorder.batches_, 1);
        EXPECT_LT(s.recorder.lines_.size(), 200u);
    }
    s.recorder.releaseHeld();
    ASSERT_TRUE(s.recorder.waitFor([](Recorder& r) { return r.lines_.size() == 200; }));

    SocketClient longLine(s.server->socketPath());
    ASSERT_TRUE(longLine.send(std::string(2000, 'y')));
    EXPECT_TRUE(longLine.readUntilClosed(5s));
    ASSERT_TRUE(s.recorder.waitFor([](Recorder& r) { return r.closed_ == 1; }));

    // At the limit a new face is closed at once; the ones there stay.
    SocketClient two(s.server->socketPath()), three(s.server->socketPath());
    ASSERT_TRUE(eventually([&] { return s.server->clientCount() == 3; }));
    SocketClient four(s.server->socketPath());
    EXPECT_TRUE(four.readUntilClosed(5s));
    EXPECT_EQ(s.server->clientCount(), 3u);
}
