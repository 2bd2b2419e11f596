// The service manager's names kept across its restart: which stay reserved,
// and the holder and claim answers byte for byte.
#include "service_registry.h"
#include "svcmgr_handler.h"

#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <fstream>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using hmisvc::tools::Process;

TEST(KeptNames, ReservedForTheLivingHolderOrWhileAClaimRuns)
{
    const Process self = Process::of(getpid(), geteuid());
    // An exited process, its start read while a zombie: its pid taken
    // again meanwhile does not revive it.
    pid_t child = fork();
    if (child == 0)
        _exit(0);
    siginfo_t info{};
    waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT);
    const Process dead = Process::of(child, geteuid());
    waitpid(child, nullptr, 0);
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    // Name "a" and a digit, its hex as the file keeps it.
    struct Case {
        const char *name;
        const Process &owner;
        int start_off, claimed;
        long long until;
        pid_t held_by;  // 0: free after the restart
    } cases[] = {
        {"00610031", self, 0, 0, 0, self.pid},              // alive
        {"00610032", self, 1, 0, 0, 0},                     // its pid reused
        {"00610033", dead, 0, 0, 0, 0},                     // exited
        {"00610034", dead, 0, 1, 0, dead.pid},              // exited, claimed
        {"00610035", dead, 0, 1, now.tv_sec + 60, dead.pid}, // claim running
        {"00610036", dead, 0, 1, now.tv_sec - 1, 0},        // claim lapsed
    };
    std::string file = "/tmp/names_test." + std::to_string(getpid());
    {
        std::ofstream out(file);
        for (const Case &c : cases)
            out << c.name << ' ' << c.owner.pid << ' ' << c.owner.euid << ' ' << c.owner.start + c.start_off << ' '
                << c.claimed << ' ' << c.until << ' ' << c.owner.exe << '\n';
        out << "not-hex 1 2\n";  // skipped, as a torn line would be
    }
    hmisvc::tools::ServiceRegistry registry(nullptr, file);
    std::remove(file.c_str());
    for (const Case &c : cases) {
        std::u16string name = {u'a', static_cast<char16_t>(c.name[7])};
        Process holder;
        EXPECT_EQ(registry.holder(name, holder) ? holder.pid : 0, c.held_by) << c.name;
        EXPECT_EQ(registry.lookup(name), 0u) << "reserved, not published: " << c.name;
    }

    // The holder request's answer: status 0, pid, euid; nobody's: the
    // status alone. A claim by another process: the status word 1.
    hmisvc::tools::SvcmgrHandler handler(registry);
    auto ask = [&](uint32_t code, const char *name, std::vector<uint32_t> &answer) {
        uint32_t in[64], out[16];
        binder_io req, msg, reply;
        bio_init(&req, in, sizeof in, 4);
        bio_put_uint32(&req, 0);
        bio_put_string16_x(&req, "android.os.IServiceManager");
        bio_put_string16_x(&req, name);
        binder_transaction_data txn{};
        txn.code = code;
        txn.sender_pid = getpid() + 1;
        txn.data_size = static_cast<binder_size_t>(req.cursor - req.data_start);
        txn.data.ptr.buffer = reinterpret_cast<binder_uintptr_t>(req.data_start);
        bio_init_from_txn(&msg, &txn);
        bio_init(&reply, out, sizeof out, 4);
        int status = handler.handle(txn, msg, reply);
        answer.assign(reinterpret_cast<uint32_t *>(reply.data_start), reinterpret_cast<uint32_t *>(reply.cursor));
        return status;
    };
    std::vector<uint32_t> answer;
    EXPECT_EQ(ask(hmisvc::tools::kSvcmgrCodeHolder, "a1", answer), 0);
    EXPECT_EQ(answer, (std::vector<uint32_t>{0, static_cast<uint32_t>(self.pid), self.euid}));
    EXPECT_EQ(ask(hmisvc::tools::kSvcmgrCodeHolder, "a3", answer), 1);
    EXPECT_TRUE(answer.empty());
    EXPECT_EQ(ask(hmisvc::tools::kSvcmgrCodeClaim, "a1", answer), 0);
    EXPECT_EQ(answer, std::vector<uint32_t>{1});
}
