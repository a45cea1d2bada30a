#include "server/host_commands.h"

#include "support/failure_of.h"
#include "support/recorded_commands.h"
#include "support/recorded_log.h"

#include <cstdlib>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace nfslib::testing {
namespace {

using ::testing::ElementsAre;

const NfsPath kExport("/{0fa1b2c3-0000-4444-8888-0123456789ab}");
constexpr const char* kAddress = "127.127.0.1";
constexpr unsigned kPort = 33049;

NfsMountSpec writable(unsigned version) {
  NfsMountSpec spec;
  spec.writeEnabled = true;
  spec.version = version;
  return spec;
}

// The command line of mountShare in the words of each family of systems.
std::vector<std::string> mountLines(const NfsMountSpec& spec, const std::string& mountPoint) {
  RecordedCommands commands;
  RecordedLog log;
  system::mountShare(mountPoint, kAddress, kExport, kPort, spec);
  const auto lines = commands.takeLines();
  EXPECT_EQ(lines.size(), 1U);
  const std::string& line = lines.at(0);
  // The option list is the same for all.
  const std::size_t list = line.rfind(" -o ") + 4;
  const std::string options = line.substr(list, line.find(' ', list) - list);
  const std::string share = std::string(kAddress) + ":" + kExport.str();
  const std::string word = system::shellWord(mountPoint);
  EXPECT_EQ(line, system::hostCommands().mount(spec, options, share, word));
  return {system::kSolarisCommands.mount(spec, options, share, word),
          system::kLinuxCommands.mount(spec, options, share, word)};
}

TEST(MountCommand, HasTheOptionsInTheirOrder) {
  const std::string share = "127.127.0.1:" + kExport.str();
  EXPECT_THAT(mountLines({}, "/mnt/backup"),
              ElementsAre("/usr/sbin/mount -F nfs -o "
                          "ro,vers=3,proto=tcp,timeo=300,sec=sys,actimeo=600,llock,nocto,"
                          "rsize=65536,port=33049 " +
                              share + " /mnt/backup",
                          "mount -t nfs -s -o nolock -o "
                          "ro,vers=3,proto=tcp,timeo=300,sec=sys,actimeo=600,llock,nocto,"
                          "rsize=65536,port=33049 " +
                              share + " /mnt/backup"));
  NfsMountSpec udp = writable(3);
  udp.protocol = NfsMountSpec::Protocol::udp;
  udp.rsize = 8192;
  EXPECT_THAT(mountLines(udp, "/m"),
              ElementsAre("/usr/sbin/mount -F nfs -o vers=3,proto=udp,timeo=300,sec=sys,"
                          "actimeo=600,llock,nocto,rsize=8192,port=33049 " +
                              share + " /m",
                          "mount -t nfs -s -o nolock -o vers=3,proto=udp,timeo=300,sec=sys,"
                          "actimeo=600,llock,nocto,rsize=8192,port=33049 " +
                              share + " /m"));
  NfsMountSpec told = writable(3);
  told.useMountPort = 33050;
  EXPECT_THAT(mountLines(told, "/m")[1],
              ::testing::StartsWith("mount -t nfs -s -o nolock,mountport=33050 -o vers=3,"));
  EXPECT_THAT(mountLines(writable(4), "/m")[1],
              ::testing::StartsWith("mount -t nfs -s -o nolock,wsize=524288 -o vers=4,proto=tcp,"));
}

TEST(MountCommand, LogsWhatItDoesAndTellsWhatFailed) {
  RecordedCommands commands;
  RecordedLog log;
  const std::string line = system::hostCommands().mount(
      {}, "ro,vers=3,proto=tcp,timeo=300,sec=sys,actimeo=600,llock,nocto,rsize=65536,port=33049",
      "127.127.0.1:" + kExport.str(), "/m");
  commands.fail("mount", 32, "mount.nfs: access denied");
  EXPECT_EQ(
      failureOf([&] { system::mountShare("/m", 0x0100007FU | 0x00007F00U, kExport, kPort, {}); }),
      "Failed to mount NFS export [127.127.0.1:" + kExport.str() +
          "] onto [/m]. Error: [Command failed: [" + line + "]. Code: [32]]");
  EXPECT_THAT(log.takeLines(),
              ElementsAre("info Mounting NFS export [127.127.0.1:" + kExport.str() +
                              "] onto mount point [/m].",
                          "info NFS mount params from settings: [vers=3, proto=tcp, rsize=65536].",
                          "warn [" + line + "] says: [mount.nfs: access denied]"));
  NfsMountSpec strange;
  strange.protocol = static_cast<NfsMountSpec::Protocol>(7);
  EXPECT_THAT(failureOf([&] { system::mountShare("/m", kAddress, kExport, kPort, strange); }),
              ::testing::HasSubstr("There is no transport protocol [7]."));
}

TEST(UnmountCommand, NeverThrows) {
  RecordedCommands commands;
  RecordedLog log;
  commands.fail("umount", 16);
  system::unmountShare("/mnt/backup", false);
  EXPECT_EQ(system::kSolarisCommands.unmount("/mnt/backup"), "/usr/sbin/umount -f /mnt/backup");
  EXPECT_EQ(system::kLinuxCommands.unmount("/mnt/backup"), "umount -f -l /mnt/backup");
  const std::string line = system::hostCommands().unmount("/mnt/backup");
  EXPECT_THAT(commands.takeLines(), ElementsAre(line));
  EXPECT_THAT(log.takeLines(), ElementsAre("info Unmounting NFS mount point [/mnt/backup].",
                                           "err Failed to unmount [/mnt/backup].: Command failed: "
                                           "[" +
                                               line + "]. Code: [16]"));
  system::unmountShare("", false);
  EXPECT_THAT(commands.takeLines(), ElementsAre());
}

TEST(AddressCommands, AddAndRemove) {
  RecordedCommands commands;
  RecordedLog log;
  EXPECT_EQ(system::kSolarisCommands.addAddress("lo0", "127.0.0.5"),
            "/usr/sbin/ifconfig lo0 addif 127.0.0.5 up");
  EXPECT_EQ(system::kSolarisCommands.removeAddress("lo0", "127.0.0.5"),
            "/usr/sbin/ifconfig lo0 removeif 127.0.0.5");
  const auto& system = system::hostCommands();
  system::addAddress("lo", "127.0.0.5");
  EXPECT_THAT(commands.takeLines(), ElementsAre(system.addAddress("lo", "127.0.0.5")));

  commands.fail("127.0.0.5", 2);
  EXPECT_EQ(failureOf([&] { system::addAddress("lo", 0x0500007FU); }),
            "Failed to add address [127.0.0.5] to interface [lo]. Exception: [Command failed: [" +
                system.addAddress("lo", "127.0.0.5") + "]. Error: [2]]");
  log.takeLines();
  system::removeAddress("lo", "127.0.0.5");
  EXPECT_THAT(log.takeLines(),
              ElementsAre("info Removing address [127.0.0.5] from network interface [lo].",
                          "err Failed to remove address [127.0.0.5] from interface [lo].: Command "
                          "failed: [" +
                              system.removeAddress("lo", "127.0.0.5") + "]. Error: [2]"));
}

// What a shell makes of the word is the path again.
TEST(ShellWord, IsOneWordWhateverThePathHolds) {
  EXPECT_EQ(system::shellWord("/mnt/back-up_1.old"), "/mnt/back-up_1.old");
  EXPECT_EQ(system::shellWord("-rf"), "./-rf");
  for (const std::string path :
       {"/a b", "/it's", "/\"quoted\"", "/$(touch x)`id`", "/a;b&c|d>e<f", "/new\nline", "/*?[a]",
        "/back\\slash", "/#hash", "/~", "/{a,b}", "/Grüße", "/ tail ", "/!history", "/a\tb"}) {
    const auto result = system::runCommandLine("printf '<%s>' " + system::shellWord(path));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "<" + path + ">");
  }
  EXPECT_THROW(system::shellWord(""), std::runtime_error);
  EXPECT_THROW(system::shellWord(std::string("/a\0b", 4)), std::runtime_error);
}

TEST(CommandLine, GivesTheStatusAndKeepsTheOutput) {
  const auto result = system::runCommandLine("echo out; echo wrong >&2; exit 32");
  EXPECT_EQ(result.status, 32 << 8);
  EXPECT_EQ(result.output, "out\nwrong");
}

}  // namespace
}  // namespace nfslib::testing
