// The main() of every test program. Each test runs in an empty folder of its own, which is gone
// afterwards, so tests use plain file names and may run side by side.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>
#include <utility>

namespace {

namespace fs = std::filesystem;

fs::path make_folder()
{
    std::string name = (fs::temp_directory_path() / "trend-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr)
        throw std::system_error(errno, std::generic_category(), name);
    return name;
}

class folder_per_test : public testing::EmptyTestEventListener {
public:
    explicit folder_per_test(fs::path root) : _root(std::move(root)) {}

    void OnTestStart(const testing::TestInfo&) override
    {
        _folder = make_folder();
        fs::current_path(_folder);
    }

    void OnTestEnd(const testing::TestInfo&) override
    {
        fs::current_path(_root);
        fs::remove_all(_folder);
    }

private:
    fs::path _root;
    fs::path _folder;
};

#ifdef TREND_COVERAGE
// A death test's child ends in abort(), which would lose what it has reached.
extern "C" void __gcov_dump();

void save_counts(int)
{
    std::signal(SIGABRT, SIG_DFL);
    __gcov_dump();
    std::abort();
}
#endif

}  // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleMock(&argc, argv);
#ifdef TREND_COVERAGE
    std::signal(SIGABRT, save_counts);
#endif

    // Temporary files go there too, and those of child processes, which may have no chance to
    // tidy up: a death test's child starts this program anew and never returns from main().
    const fs::path root = make_folder();
    setenv("TMPDIR", root.c_str(), 1);
    fs::current_path(root);
    testing::UnitTest::GetInstance()->listeners().Append(new folder_per_test(root));

    const int result = RUN_ALL_TESTS();

    fs::current_path(fs::path("/"));
    fs::remove_all(root);
    return result;
}
