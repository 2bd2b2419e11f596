// Broadcasts across processes on the real driver: receiving endpoints in
// forked children, the simulator's broadcast service fanning out, senders in
// this process. Children report what their receivers got, one line each,
// through a pipe.
#include "process.h"

#include <hmisvc/binder.h>
#include <hmisvc/broadcast.h>
#include <hmisvc/context.h>
#include <hmisvc/proxies.h>

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <numeric>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

// Reads lines from a pipe, each wait bounded.
class LineReader {
public:
    explicit LineReader(int fd) : fd_(fd) {}
    ~LineReader() { close(fd_); }
    // The next line, or false when none arrives within `ms`.
    bool next(std::string &line, int ms = 10000)
    {
        for (;;) {
            auto nl = buf_.find('\n');
            if (nl != std::string::npos) {
                line = buf_.substr(0, nl);
                buf_.erase(0, nl + 1);
                return true;
            }
            pollfd p{fd_, POLLIN, 0};
            if (poll(&p, 1, ms) != 1)
                return false;
            char chunk[4096];
            ssize_t n = read(fd_, chunk, sizeof chunk);
            if (n <= 0)
                return false;
            buf_.append(chunk, static_cast<size_t>(n));
        }
    }

private:
    int fd_;
    std::string buf_;
};

// The endpoint names of this process: "BroadCast#<tid>" for each of its
// threads that has published one.
std::vector<std::string> published_endpoints()
{
    std::vector<std::string> names;
    DIR *dir = opendir("/proc/self/task");
    if (!dir)
        return names;
    peer::Connection bs(binder_open(1024));
    while (dirent *e = readdir(dir)) {
        if (e->d_name[0] == '.')
            continue;
        std::string name = std::string("BroadCast#") + e->d_name;
        if (bs && svcmgr_lookup(bs.get(), SVCMGR_HANDLE, name.c_str()) != 0)
            names.push_back(name);
    }
    closedir(dir);
    return names;
}


// Writes one line per received intent:
// "<tag> <action> <int extra n> <string extra s>".
class Reporter : public BroadcastReceiver {
public:
    Reporter(int fd, std::string tag) : fd_(fd), tag_(std::move(tag)) {}
    void onReceive(BroadcastService *, std::shared_ptr<Intent> intent) override
    {
        std::ostringstream line;
        line << tag_ << ' ' << intent->getAction() << ' ' << intent->getIntExtra("n", -1) << ' '
             << intent->getStringExtra("s") << '\n';
        std::string s = line.str();
        ssize_t ignored = write(fd_, s.data(), s.size());  // one write: lines never interleave
        (void)ignored;
    }

private:
    int fd_;
    std::string tag_;
};

struct ReceiverSpec;
using Specs = std::vector<ReceiverSpec>;
struct ReceiverSpec {
    std::string tag;
    std::vector<std::string> actions;
    int endpoint = 0;  // which of the process's endpoints it registers with
};

// A child process with `endpoints` endpoints and the given receivers; its
// receivers report on `report`, its standard output goes to `output` when
// asked. Ready once every endpoint is published.
struct Receivers {
    std::unique_ptr<LineReader> report, output;
    std::vector<std::string> names;  // its endpoint names
    std::unique_ptr<peer::Child> child;

    Receivers(std::vector<ReceiverSpec> specs, int endpoints = 1, bool capture_stdout = false)
    {
        int rep[2], out[2] = {-1, -1}, names_pipe[2];
        if (pipe(rep) != 0 || pipe(names_pipe) != 0 || (capture_stdout && pipe(out) != 0))
            return;
        child = std::make_unique<peer::Child>([=](int ready_fd) {
            if (capture_stdout) {
                dup2(out[1], STDOUT_FILENO);
                setvbuf(stdout, nullptr, _IOLBF, 0);
            }
            // Each delivery starts a detached thread per matching receiver
            // with the default stack (the 8 MB stack limit). When deliveries
            // come faster than receivers end (a reader that falls behind
            // blocks them in their write), a 32-bit process runs out of
            // address space after a few hundred such threads and the failed
            // std::thread ends it. Small stacks, as an application on the
            // device would choose, keep it within bounds.
            pthread_attr_t small;
            pthread_attr_init(&small);
            pthread_attr_setstacksize(&small, 256 * 1024);
            pthread_setattr_default_np(&small);
            std::vector<BroadcastService *> services;
            for (int i = 0; i < endpoints; ++i)
                services.push_back(Context::CreateBroadcastService());
            std::vector<IntentFilter *> filters;
            for (const auto &spec : specs) {
                auto *filter = new IntentFilter;
                for (const auto &a : spec.actions)
                    filter->addAction(a);
                services[static_cast<size_t>(spec.endpoint)]->registerReceiver(
                    new Reporter(rep[1], spec.tag), filter);
            }
            std::vector<std::string> found;
            if (!peer::eventually([&] { return (found = published_endpoints()).size() == size_t(endpoints); }))
                return 1;
            std::string line;
            for (const auto &n : found)
                line += n + ' ';
            line += '\n';
            if (write(names_pipe[1], line.data(), line.size()) < 0 || write(ready_fd, "r", 1) != 1)
                return 1;
            for (;;)
                pause();
        });
        close(rep[1]);
        close(names_pipe[1]);
        report = std::make_unique<LineReader>(rep[0]);
        if (capture_stdout) {
            close(out[1]);
            output = std::make_unique<LineReader>(out[0]);
        }
        LineReader names_reader(names_pipe[0]);
        std::string line;
        if (child->ready() && names_reader.next(line)) {
            std::istringstream in(line);
            for (std::string n; in >> n;)
                names.push_back(n);
        }
    }
    bool ready() const { return child && child->ready() && !names.empty(); }

    // `n` report lines, split into words.
    std::vector<std::vector<std::string>> take(size_t n, int ms = 10000)
    {
        std::vector<std::vector<std::string>> lines;
        std::string line;
        while (lines.size() < n && report->next(line, ms)) {
            std::istringstream in(line);
            std::vector<std::string> words;
            for (std::string w; in >> w;)
                words.push_back(w);
            lines.push_back(words);
        }
        return lines;
    }
    // True when no further report arrives within a short drain period.
    bool quiet(int ms = 300)
    {
        std::string line;
        return !report->next(line, ms);
    }
};

// A code-`code` transaction straight to an endpoint, in the delivery layout.
int send_raw(const std::string &endpoint, uint32_t code, const std::string &payload, size_t *reply_bytes = nullptr)
{
    peer::Connection bs(binder_open(4096));
    uint32_t handle = svcmgr_lookup(bs.get(), SVCMGR_HANDLE, endpoint.c_str());
    if (!handle)
        return -2;
    unsigned char data[4096];
    binder_io msg, reply;
    bio_init(&msg, data, sizeof data, 4);
    bio_put_uint32(&msg, 0x12345678);  // the header word is ignored
    bio_put_mem(&msg, payload.data(), static_cast<uint32_t>(payload.size()));
    int r = binder_call(bs.get(), &msg, &reply, handle, code);
    if (r == 0) {
        if (reply_bytes)
            *reply_bytes = reply.data_left;
        binder_done(bs.get(), &msg, &reply);
    }
    return r;
}

Intent make_intent(const std::string &action, int n, const std::string &s)
{
    Intent i(action);
    i.putExtra("n", n);
    i.putExtra("s", s);
    return i;
}

class Environment : public ::testing::Environment {
public:
    void SetUp() override { ASSERT_TRUE(peer::start_service_manager(HMISVC_SERVICEMANAGER)); }
    void TearDown() override { peer::stop_service_manager(); }
};

class Broadcasts : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_TRUE(peer::start_devsim({HMISVC_DEVSIM})); }
    static void TearDownTestSuite() { ASSERT_TRUE(peer::stop_devsim({"broadcast"})); }
};

// Dispatch within the receiving process (a thread per receiver, one shared
// intent) is a unit test's; here intents cross processes whole.
TEST_F(Broadcasts, TwoEndpointsInOneProcessBothReceive)
{
    Receivers r(Specs{{"first", {"test.two"}, 0}, {"second", {"test.two"}, 1}}, 2);
    ASSERT_TRUE(r.ready());
    ASSERT_EQ(r.names.size(), 2u);
    EXPECT_NE(r.names[0], r.names[1]);
    Intent intent("test.two");
    Context::SendBroadcast(intent);
    auto got = r.take(2);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_NE(got[0][0], got[1][0]);
    EXPECT_TRUE(r.quiet());
}

TEST_F(Broadcasts, UnknownCodePrintsTheMarkersAndDeliversNothing)
{
    Receivers r(Specs{{"any", {"", "test.after"}}}, 1, true);
    ASSERT_TRUE(r.ready());
    const std::string empty = Intent().toString();
    for (uint32_t code : {0u, 2u}) {
        size_t reply_bytes = 99;
        ASSERT_EQ(send_raw(r.names[0], code, empty, &reply_bytes), 0);
        EXPECT_EQ(reply_bytes, 0u);
        const std::string expected[] = {"55555555555555555555555599999999999999999999",
                                        "unknow code :" + std::to_string(code),
                                        "666666666666666666666666699999999999999999999"};
        for (const auto &want : expected) {
            std::string line;
            ASSERT_TRUE(r.output->next(line));
            EXPECT_EQ(line, want);
        }
    }
    // Deliveries are handled in order: the first report is the real one.
    ASSERT_EQ(send_raw(r.names[0], 1, Intent("test.after").toString()), 0);
    auto got = r.take(1);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0][1], "test.after");
    EXPECT_TRUE(r.quiet());
}

TEST_F(Broadcasts, LargestIntentFitsAndOneByteMoreFails)
{
    // 4096-byte request area less the 4 offsets entries, the leading word
    // and the block's length word.
    const size_t largest = 4096 - 4 * sizeof(binder_size_t) - 8;
    const size_t empty = Intent().toString().size();
    Receivers r(Specs{{"big", {std::string(largest - empty, 'x')}}});
    ASSERT_TRUE(r.ready());

    Intent fits(std::string(largest - empty, 'x'));
    ASSERT_EQ(fits.toString().size(), largest);
    auto manager = std::dynamic_pointer_cast<BroadcastManager>(Context::getSystemService(Context::BROADCAST_SERVICE));
    CaptureStdout();
    manager->SendBroadcast(fits);
    EXPECT_EQ(GetCapturedStdout(), "");
    auto got = r.take(1);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0][1].size(), largest - empty);

    Intent too_big(std::string(largest - empty + 1, 'x'));
    CaptureStdout();
    CaptureStderr();
    manager->SendBroadcast(too_big);
    EXPECT_NE(GetCapturedStderr().find("binder: txn buffer overflow"), std::string::npos);
    EXPECT_EQ(GetCapturedStdout(), "Fail binder call SendBroadcast\n");
}

// The n extras of report lines, sorted (each delivery is reported by a
// thread of its own, so lines may come in any order).
std::vector<int> numbers(const std::vector<std::vector<std::string>> &lines)
{
    std::vector<int> n;
    for (const auto &words : lines)
        n.push_back(words.size() > 2 ? std::stoi(words[2]) : -1);
    std::sort(n.begin(), n.end());
    return n;
}

TEST_F(Broadcasts, AStoppedEndpointHoldsUpNobodyElse)
{
    // More than the simulator keeps for an endpoint that takes nothing: the
    // live one gets them all, the sender held up once, for a second.
    constexpr int kSent = 1024 + 10;
    Receivers stuck(Specs{{"stuck", {"test.slow"}}});
    Receivers live(Specs{{"live", {"test.slow"}}});
    ASSERT_TRUE(stuck.ready());
    ASSERT_TRUE(live.ready());
    // Both known to the broadcast service before one stops.
    Intent first = make_intent("test.slow", -1, "x");
    Context::SendBroadcast(first);
    ASSERT_EQ(stuck.take(1).size(), 1u);
    ASSERT_EQ(live.take(1).size(), 1u);
    ASSERT_TRUE(peer::stop_process(stuck.child->pid()));
    std::vector<std::vector<std::string>> got;
    std::thread reader([&] { got = live.take(kSent, 30000); });
    {
        BroadcastManager manager;
        for (int i = 0; i < kSent; ++i) {
            Intent intent = make_intent("test.slow", i, "x");
            manager.SendBroadcast(intent);
        }
    }
    reader.join();
    std::vector<int> all(kSent);
    std::iota(all.begin(), all.end(), 0);
    EXPECT_EQ(numbers(got), all);
    // Not resumed: the stop interrupted its endpoint's wait in the driver,
    // and a designed endpoint's loop ends there ("svcmgr: binder_loop:
    // ioctl failed (Interrupted system call)").
    // Its delivery fails once it is gone; the others go on.
    stuck.child->kill();
    Intent after = make_intent("test.slow", kSent, "x");
    Context::SendBroadcast(after);
    got = live.take(1);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0][2], std::to_string(kSent));
}

// Takes a delivery and never answers.
int never_answer(binder_connection *, binder_transaction_data *, binder_io *, binder_io *)
{
    for (;;)
        pause();
}

// Eight endpoints of one process that take a delivery and never answer
// (more than the simulator once had delivery threads): the live endpoint
// gets every intent all the same.
TEST_F(Broadcasts, EndpointsThatNeverAnswerHoldUpOnlyTheirOwnDeliveries)
{
    constexpr int kHung = 8, kSent = 5;
    peer::Child hung([](int ready_fd) {
        peer::Connection bs(binder_open(4096));
        BroadcastManager manager;
        static char objects[kHung];
        for (int i = 0; i < kHung; ++i) {
            std::string name = "BroadCast#hung" + std::to_string(i);
            manager.RegisterBroadcastService(name);
            if (svcmgr_publish(bs.get(), SVCMGR_HANDLE, name.c_str(), &objects[i]) != 0)
                return 1;
        }
        if (write(ready_fd, "r", 1) != 1)
            return 1;
        binder_loop(bs.get(), never_answer);
        return 1;
    });
    ASSERT_TRUE(hung.ready());
    Receivers live(Specs{{"live", {"test.hung"}}});
    ASSERT_TRUE(live.ready());
    std::vector<std::vector<std::string>> got;
    for (int i = 0; i < kSent; ++i) {
        Intent intent = make_intent("test.hung", i, "x");
        Context::SendBroadcast(intent);
        for (auto &line : live.take(1))
            got.push_back(line);
    }
    EXPECT_EQ(numbers(got), (std::vector<int>{0, 1, 2, 3, 4})) << got.size() << " of " << kSent << " delivered";
}

// 10,000 intents from 4 threads to one receiver: each exactly once.
TEST_F(Broadcasts, StormDeliversEveryIntentExactlyOnce)
{
    constexpr int kThreads = 4, kPerThread = 2500, kTotal = kThreads * kPerThread;
    Receivers r(Specs{{"storm", {"test.storm"}}});
    ASSERT_TRUE(r.ready());
    // Read while they are sent: a full pipe would block the receiving
    // threads, which then pile up until the endpoint stalls and the
    // broadcast service drops intents it could not hand over.
    std::vector<std::vector<std::string>> got;
    std::thread reader([&] { got = r.take(kTotal, 30000); });
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t)
        senders.emplace_back([t] {
            BroadcastManager manager;  // one proxy per thread: no open per send
            for (int i = 0; i < kPerThread; ++i) {
                Intent intent = make_intent("test.storm", t * kPerThread + i, "s");
                manager.SendBroadcast(intent);
            }
        });
    for (auto &s : senders)
        s.join();
    reader.join();
    std::vector<int> seen(kTotal, 0);
    EXPECT_EQ(got.size(), size_t(kTotal));
    for (auto &words : got) {
        int seq = std::stoi(words[2]);
        ASSERT_TRUE(seq >= 0 && seq < kTotal);
        ++seen[size_t(seq)];
    }
    EXPECT_TRUE(r.quiet());
    int wrong = 0;
    for (int n : seen)
        wrong += n != 1;
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(kill(r.child->pid(), 0), 0) << "the receiving process died";
    EXPECT_TRUE(peer::service_found("broadcast"));
}

// Must stay last: it stops the simulator.
class WithoutBroadcastService : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_TRUE(peer::start_devsim({HMISVC_DEVSIM, "--services", "system"})); }
};

TEST_F(WithoutBroadcastService, EndpointStillPublishesAndServes)
{
    ASSERT_FALSE(peer::service_found("broadcast"));
    Receivers r(Specs{{"alone", {"test.raw"}}}, 1, true);
    ASSERT_TRUE(r.ready());
    for (const char *want : {"Failed to find service: broadcast", "Fail binder call RegisterBroadcastService"}) {
        std::string line;
        ASSERT_TRUE(r.output->next(line));
        EXPECT_EQ(line, want);
    }
    ASSERT_EQ(send_raw(r.names[0], 1, make_intent("test.raw", 7, "raw").toString()), 0);
    auto got = r.take(1);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0], (std::vector<std::string>{"alone", "test.raw", "7", "raw"}));
}

}  // namespace

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new Environment);
    return RUN_ALL_TESTS();
}
