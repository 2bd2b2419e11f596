// The service manager's names kept across its restart: which of them stay
// reserved, and the holder request's answer byte for byte.
#include "service_registry.h"
#include "svcmgr_handler.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using hmisvc::tools::Process;
using hmisvc::tools::ServiceRegistry;
using hmisvc::tools::SvcmgrHandler;

long long boot_seconds()
{
    timespec ts{};
    clock_gettime(CLOCK_BOOTTIME, &ts);
    return ts.tv_sec;
}

// A process that has exited, with its start time read while it was a
// zombie, so that its pid taken again meanwhile does not revive it.
Process exited_process()
{
    pid_t child = fork();
    if (child == 0)
        _exit(0);
    siginfo_t info{};
    waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT);
    Process p = Process::of(child, geteuid());
    waitpid(child, nullptr, 0);
    return p;
}

class KeptNames : public ::testing::Test {
protected:
    void SetUp() override
    {
        char dir[] = "/tmp/names_test.XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
        file_ = dir_ + "/names";
    }
    void TearDown() override
    {
        std::remove(file_.c_str());
        rmdir(dir_.c_str());
    }
    // The name's units in hex, as the file keeps them.
    static std::string hex(const std::string &name)
    {
        std::string out;
        char unit[8];
        for (char c : name) {
            std::snprintf(unit, sizeof unit, "%04x", static_cast<unsigned>(c));
            out += unit;
        }
        return out;
    }
    std::string dir_, file_;
};

TEST_F(KeptNames, ReservedForTheLivingHolderOrWhileAClaimRuns)
{
    const Process self = Process::of(getpid(), geteuid());
    const Process exited = exited_process();
    const pid_t dead = exited.pid;
    const long long now = boot_seconds();
    struct Case {
        const char *name;
        pid_t pid;
        unsigned long long start;
        int claimed;
        long long until;
        pid_t held_by;  // 0: free after the restart
    } cases[] = {
        {"alive", self.pid, self.start, 0, 0, self.pid},
        {"pid.reused", self.pid, self.start + 1, 0, 0, 0},
        {"exited", dead, exited.start, 0, 0, 0},
        {"exited.claimed", dead, exited.start, 1, 0, dead},
        {"exited.claim.running", dead, exited.start, 1, now + 60, dead},
        {"exited.claim.lapsed", dead, exited.start, 1, now - 1, 0},
        {"alive.claimed", self.pid, self.start, 1, 0, self.pid},
    };
    {
        std::ofstream out(file_);
        for (const Case &c : cases)
            out << hex(c.name) << ' ' << c.pid << ' ' << self.euid << ' ' << c.start << ' ' << c.claimed << ' '
                << c.until << ' ' << self.exe << '\n';
        out << "not-hex 1 2\n";  // skipped, as a torn line would be
    }
    ServiceRegistry registry(nullptr, file_);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        std::u16string name(c.name, c.name + std::strlen(c.name));
        Process holder;
        EXPECT_EQ(registry.holder(name, holder), c.held_by != 0);
        if (c.held_by) {
            EXPECT_EQ(holder.pid, c.held_by);
        }
        // Reserved, not published: nobody finds it until it is again.
        EXPECT_EQ(registry.lookup(name), 0u);
    }
    std::u16string listed;
    EXPECT_FALSE(registry.name_at(0, listed));
}

TEST_F(KeptNames, HolderAndClaimAnswersByteForByte)
{
    const Process self = Process::of(getpid(), geteuid());
    {
        std::ofstream out(file_);
        out << hex("mine") << ' ' << self.pid << ' ' << self.euid << ' ' << self.start << " 0 0 " << self.exe << '\n';
    }
    ServiceRegistry registry(nullptr, file_);
    SvcmgrHandler handler(registry);
    auto ask = [&](uint32_t code, const char *name, std::string &answer) {
        std::vector<uint32_t> in(128);
        binder_io req;
        bio_init(&req, in.data(), static_cast<uint32_t>(in.size() * 4), 4);
        bio_put_uint32(&req, 0);
        bio_put_string16_x(&req, "android.os.IServiceManager");
        bio_put_string16_x(&req, name);
        binder_transaction_data txn{};
        txn.code = code;
        txn.sender_pid = getpid() + 1;
        txn.data_size = static_cast<binder_size_t>(req.cursor - req.data_start);
        txn.data.ptr.buffer = reinterpret_cast<binder_uintptr_t>(req.data_start);
        binder_io msg, reply;
        bio_init_from_txn(&msg, &txn);
        std::vector<uint32_t> out(64);
        bio_init(&reply, out.data(), static_cast<uint32_t>(out.size() * 4), 4);
        int status = handler.handle(txn, msg, reply);
        answer.assign(reply.data_start, reply.cursor);
        return status;
    };
    auto words = [](std::vector<uint32_t> w) { return std::string(reinterpret_cast<char *>(w.data()), w.size() * 4); };
    std::string answer;
    EXPECT_EQ(ask(hmisvc::tools::kSvcmgrCodeHolder, "mine", answer), 0);
    EXPECT_EQ(answer, words({0, static_cast<uint32_t>(self.pid), self.euid}));
    EXPECT_EQ(ask(hmisvc::tools::kSvcmgrCodeHolder, "nobody's", answer), SvcmgrHandler::kNoMoreNames);
    EXPECT_EQ(answer, "");
    // Another process (the sender is not this one) cannot claim it.
    EXPECT_EQ(ask(hmisvc::tools::kSvcmgrCodeClaim, "mine", answer), 0);
    EXPECT_EQ(answer, words({1}));
}

}  // namespace
