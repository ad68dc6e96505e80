#include "sync/lifecycle/directory_lock.hpp"

#include <fcntl.h>
#include <sys/file.h>

#include <filesystem>

#include "sync/base/threads/interrupt.hpp"
#include "sync/lifecycle/lock_holder.hpp"
#include "tests/documents/values.hpp"
#include "tests/support/temporary_directory.hpp"

namespace brackenfen::sync {
namespace {

/// flock on a descriptor of its own, as another process would take it.
class Rival {
 public:
  explicit Rival(const std::string& path) : descriptor_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
  bool takes() { return ::flock(descriptor_.get(), LOCK_EX | LOCK_NB) == 0; }

 private:
  Descriptor descriptor_;
};

class DirectoryLockTest : public testing::Test {
 protected:
  const TemporaryDirectory directory;
  const std::string file = directory / ".sync_flock";
  const Guarded<std::string> data_dir{directory.path()};
  Guarded<std::string> flock_path{file};
  DirectoryLock lock{data_dir, flock_path, Clock::real()};

  bool free() { return !std::filesystem::exists(file) && Rival(directory.path()).takes(); }
};

TEST_F(DirectoryLockTest, holdsFileAndDirectoryUntilReleased) {
  flock_path.set(directory / "other");  // the name that counts is the one of the time
  {
    const DirectoryLock::Hold hold(lock);
    EXPECT_FALSE(Rival(directory / "other").takes());
    EXPECT_FALSE(std::filesystem::exists(file));
  }
  EXPECT_FALSE(std::filesystem::exists(directory / "other"));
  flock_path.set(file);
  {
    DirectoryLock::Hold hold(lock);
    EXPECT_FALSE(Rival(file).takes());
    EXPECT_FALSE(Rival(directory.path()).takes());
    EXPECT_EQ(lock_holder(directory.path()).value().pid, ::getpid());
    hold.release();
    EXPECT_TRUE(free());
    EXPECT_FALSE(lock_holder(directory.path()));
  }
  EXPECT_TRUE(free());
}

TEST_F(DirectoryLockTest, isNotTakenForThatOfAFileWithTheSameNumberElsewhere) {
  const DirectoryLock::Hold hold(lock);
  FileId locked = file_id(file).value();
  EXPECT_EQ(find_lock_holder(locked).value().pid, ::getpid());
  ++locked.device;
  EXPECT_FALSE(find_lock_holder(locked));
}

TEST_F(DirectoryLockTest, endsWithTheInnerReleaseButStaysOwned) {
  lock._acquire_flock();
  lock._acquire_flock();
  lock._release_flock();
  EXPECT_TRUE(free());
  std::thread([this] { EXPECT_THROW(lock._release_flock(), Error); }).join();
  lock._release_flock();
  EXPECT_EQ(failure_of([this] { return lock._release_flock(), 0; }), "RuntimeError: cannot release un-acquired lock");
}

TEST_F(DirectoryLockTest, isFreeAgainAfterAFailure) {
  const Guarded<std::string> gone(directory / "gone");
  const Guarded<std::string> gone_file(directory / "gone/.sync_flock");
  DirectoryLock elsewhere(gone, gone_file, Clock::real());
  const std::string failure = "FileNotFoundError: [Errno 2] No such file or directory: '" + gone_file.get() + "'";
  for (int round = 0; round < 2; ++round) EXPECT_EQ(failure_of([&] { return elsewhere._acquire_flock(), 0; }), failure);
  std::filesystem::create_directory(directory / "gone");
  std::thread([&elsewhere] { const DirectoryLock::Hold hold(elsewhere); }).join();

  // A lock file that cannot be removed fails nothing.
  lock._acquire_flock();
  std::filesystem::remove(file);
  std::filesystem::create_directory(file);
  EXPECT_NO_THROW(lock._release_flock());
  std::filesystem::remove(file);
  const DirectoryLock::Hold hold(lock);
}

TEST_F(DirectoryLockTest, leavesNothingBehindWhenAWaitIsInterrupted) {
  directory.write(".sync_flock", "");
  for (const std::string& taken : {file, directory.path()}) {
    auto rival = std::make_optional<Rival>(taken);
    ASSERT_TRUE(rival->takes());
    auto token = std::make_shared<InterruptToken>();
    std::thread waiter([&] {
      const InterruptScope scope(token);
      EXPECT_THROW(lock._acquire_flock(), Interrupted);
    });
    token->trip();
    waiter.join();
    rival.reset();
    EXPECT_TRUE(Rival(file).takes());
    EXPECT_TRUE(Rival(directory.path()).takes());
  }
}

TEST_F(DirectoryLockTest, isThatOfTheDirectoryToWhichThePathLeadsInTheEnd) {
  struct WaitedOn : Clock {
    std::int64_t monotonic_ns() override { return real().monotonic_ns(); }
    double wall_seconds() override { return real().wall_seconds(); }
    void sleep(double) override { meanwhile(); }
    std::function<void()> meanwhile;
  } clock;
  for (const char* name : {"one", "two"}) std::filesystem::create_directory(directory / name);
  std::filesystem::create_symlink("one", directory / "link");
  const Guarded<std::string> link(directory / "link");
  const Guarded<std::string> link_file(directory / "link/.sync_flock");
  DirectoryLock behind_link(link, link_file, clock);
  auto rival = std::make_optional<Rival>(directory / "one");
  ASSERT_TRUE(rival->takes());
  clock.meanwhile = [&] {
    std::filesystem::remove(directory / "link");
    std::filesystem::create_symlink("two", directory / "link");
    rival.reset();
  };
  const DirectoryLock::Hold hold(behind_link);
  EXPECT_TRUE(Rival(directory / "one").takes());
  for (const char* path : {"two", "two/.sync_flock"}) EXPECT_FALSE(Rival(directory / path).takes()) << path;
}

TEST_F(DirectoryLockTest, closesWhatALostUnitOfWorkLeft) {
  lock._acquire_flock();
  lock.close_leftover();
  EXPECT_TRUE(Rival(file).takes());
  EXPECT_TRUE(Rival(directory.path()).takes());
  lock._release_flock();
}

}  // namespace
}  // namespace brackenfen::sync
