#include "util/RunOnceRecord.h"

#include <cstddef>
#include <filesystem>
#include <functional>
#include <stdexcept>

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <zlib.h>

#include "support/ChildOutcome.h"
#include "support/Faults.h"
#include "support/SyscallFilter.h"
#include "support/TemporaryDirectory.h"

namespace lofter {
namespace {

using Names = std::set<std::string>;

constexpr int kGzipWindow = MAX_WBITS + 16;

std::string Gzip(const std::string& text) {
    z_stream stream{};
    deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, kGzipWindow, 8, Z_DEFAULT_STRATEGY);
    std::string compressed(deflateBound(&stream, text.size()), '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    stream.avail_in = static_cast<uInt>(text.size());
    stream.next_out = reinterpret_cast<Bytef*>(compressed.data());
    stream.avail_out = static_cast<uInt>(compressed.size());
    EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
    compressed.resize(stream.total_out);
    deflateEnd(&stream);
    return compressed;
}

// Independent of the reader under test.
std::string Gunzip(std::string compressed) {
    z_stream stream{};
    inflateInit2(&stream, kGzipWindow);
    std::string text(1U << 20U, '\0');
    stream.next_in = reinterpret_cast<Bytef*>(compressed.data());
    stream.avail_in = static_cast<uInt>(compressed.size());
    stream.next_out = reinterpret_cast<Bytef*>(text.data());
    stream.avail_out = static_cast<uInt>(text.size());
    EXPECT_EQ(inflate(&stream, Z_FINISH), Z_STREAM_END);
    EXPECT_EQ(stream.avail_in, 0U) << "bytes behind the end";
    text.resize(stream.total_out);
    inflateEnd(&stream);
    return text;
}

class RunOnceRecord : public testing::Test {
  protected:
    Names ReadBytes(const std::string& bytes, Names names = {}) {
        ReadRunOnceRecord(folder.Write("record", bytes), names);
        return names;
    }
    Names ReadText(const std::string& text) { return ReadBytes(Gzip(text)); }

    test::TemporaryDirectory folder;
    const std::string path = folder / "record";
};

TEST_F(RunOnceRecord, HoldsPrefixSortedNamesAndALineEnd) {
    WriteRunOnceRecord(path, {"b", "a"});
    EXPECT_EQ(Gunzip(folder.Read("record")), "lofter.run-once=a,b,\n");
}

TEST_F(RunOnceRecord, OfNoNamesHoldsThePrefixAndTheLineEnd) {
    WriteRunOnceRecord(path, {});
    EXPECT_EQ(Gunzip(folder.Read("record")), "lofter.run-once=\n");
    EXPECT_EQ(ReadBytes(folder.Read("record")), Names{});
}

TEST_F(RunOnceRecord, IsDeflatedWithoutFileNameCommentOrTime) {
    WriteRunOnceRecord(path, {"a"});
    EXPECT_EQ(folder.Read("record").substr(0, 8), std::string("\x1f\x8b\x08\0\0\0\0\0", 8));
}

TEST_F(RunOnceRecord, IsReplacedWhole) {
    folder.Write("record", std::string(100'000, 'x'));
    WriteRunOnceRecord(path, {"a"});
    EXPECT_EQ(ReadBytes(folder.Read("record")), Names{"a"});
}

TEST_F(RunOnceRecord, ReadsBackWhatWasWritten) {
    Names names{"net1.0", "\"quoted\"", "100%s", "\xc3\xa9t\xc3\xa9", "with blank"};
    for (int number = 0; number < 20'000; ++number) {
        names.insert("plugin" + std::to_string(number) + "+1.0_rc");
    }
    WriteRunOnceRecord(path, names);
    EXPECT_EQ(ReadBytes(folder.Read("record")), names);
}

TEST_F(RunOnceRecord, AddsToTheNamesThatAreThere) {
    EXPECT_EQ(ReadBytes(Gzip("lofter.run-once=b,a,\n"), {"c", "a"}), (Names{"a", "b", "c"}));
}

TEST_F(RunOnceRecord, SplitsANameThatContainsAComma) {
    WriteRunOnceRecord(path, {"x,y"});
    EXPECT_EQ(ReadBytes(folder.Read("record")), (Names{"x", "y"}));
}

TEST_F(RunOnceRecord, TrimsWhiteSpaceAndSkipsEmptyFields) {
    EXPECT_EQ(ReadText("lofter.run-once= a , b"), (Names{"a", "b"}));
    EXPECT_EQ(ReadText("lofter.run-once=,,\t\va b\r\f, ,\n"), Names{"a b"});
    EXPECT_EQ(ReadText("lofter.run-once=\na\n,b\n\n"), (Names{"a", "b"}));
}

TEST_F(RunOnceRecord, KeepsNulBytesAsPartOfAName) {
    EXPECT_EQ(ReadText(std::string("lofter.run-once=a\0b,\n", 21)), Names{std::string("a\0b", 3)});
}

TEST_F(RunOnceRecord, WithAnotherPrefixAddsNothing) {
    for (const std::string text : {"lofter.run-twice=a,b,\n", " lofter.run-once=a,b\n", "Lofter.run-once=a,b\n",
                                   "a,b,c", "lofter.run-once", ","}) {
        EXPECT_EQ(ReadText(text), Names{}) << text;
    }
}

TEST_F(RunOnceRecord, OfNothingButThePrefixAddsNothing) {
    EXPECT_EQ(ReadText("lofter.run-once="), Names{});
    EXPECT_EQ(ReadText(""), Names{});
}

TEST_F(RunOnceRecord, ThatIsMissingEmptyOrADirectoryAddsNothing) {
    Names names;
    ReadRunOnceRecord(folder / "missing", names);
    ReadRunOnceRecord(folder.Path(), names);
    EXPECT_EQ(names, Names{});
    EXPECT_EQ(ReadBytes(""), Names{});
}

TEST_F(RunOnceRecord, ThatIsTruncatedAnywhereIsRefused) {
    const std::string whole = Gzip("lofter.run-once=alpha1.0,beta2.0,gamma3.0,\n");
    for (std::size_t length = 1; length < whole.size(); ++length) {
        EXPECT_THROW(ReadBytes(whole.substr(0, length)), std::exception) << length << " of " << whole.size();
    }
    EXPECT_EQ(ReadBytes(whole), (Names{"alpha1.0", "beta2.0", "gamma3.0"}));
}

TEST_F(RunOnceRecord, WithADamagedByteIsReadAsItWasOrNotAtAll) {
    const std::string whole = Gzip("lofter.run-once=alpha1.0,beta2.0,gamma3.0,\n");
    constexpr std::size_t kHeader = 10;  // its time, flags and system say nothing about the content
    for (std::size_t place = kHeader; place < whole.size(); ++place) {
        std::string damaged = whole;
        damaged[place] = static_cast<char>(damaged[place] ^ 0x55);
        Names names;
        try {
            names = ReadBytes(damaged);
        } catch (const std::exception&) {
        }
        EXPECT_TRUE(names.empty() || names == ReadBytes(whole)) << place;
    }
}

TEST_F(RunOnceRecord, OfSeveralGzipMembersReadsAsOneText) {
    const std::string text = "lofter.run-once=alpha1.0,beta2.0,\n";
    for (std::size_t length = 0; length <= text.size(); ++length) {
        EXPECT_EQ(ReadBytes(Gzip(text.substr(0, length)) + Gzip(text.substr(length))), (Names{"alpha1.0", "beta2.0"}))
            << length;
    }
}

TEST_F(RunOnceRecord, ThatIsNoGzipDataIsRefused) {
    for (const std::string& text :
         {std::string("lofter.run-once=a,b,\n"), std::string("x"), std::string(3, '\0'), std::string(10'000, '\xff')}) {
        EXPECT_THROW(ReadBytes(text), std::exception) << text.substr(0, 20);
    }
}

TEST_F(RunOnceRecord, WithBytesBehindItsEndIsRefused) {
    EXPECT_THROW(ReadBytes(Gzip("lofter.run-once=a,\n") + "rest"), std::exception);
}

TEST_F(RunOnceRecord, ThatInflatesBeyondAllReasonIsRefused) {
    const std::string bomb = Gzip("lofter.run-once=" + std::string(65UL << 20U, 'x'));
    ASSERT_LT(bomb.size(), 1UL << 20U);
    try {
        ReadBytes(bomb);
        FAIL() << "was read";
    } catch (const std::runtime_error& failure) {
        EXPECT_STREQ(failure.what(), "run-once record is too large");
    }
}

std::string WriteFailure(const std::string& path, const Names& names) {
    try {
        WriteRunOnceRecord(path, names);
    } catch (const std::runtime_error& failure) {
        return failure.what();
    }
    return "did not fail";
}

TEST_F(RunOnceRecord, ThatCannotBeWrittenSaysWhy) {
    EXPECT_EQ(WriteFailure("/dev/full", {"a"}), "unable to write '/dev/full': No such device or address");
    EXPECT_EQ(WriteFailure(folder / "missing/record", {"a"}),
              "unable to write '" + (folder / "missing/record") + "': No such file or directory");
    EXPECT_EQ(WriteFailure(folder.Path(), {"a"}), "unable to write '" + folder.Path().string() + "': Is a directory");
}

TEST_F(RunOnceRecord, ThatIsCutShortByAFullDiskSaysSo) {
    const std::string outcome = test::InForkedChild([&] {
        test::LimitFileSize(10);
        return WriteFailure(path, {"a"});
    });
    EXPECT_EQ(outcome, "unable to write '" + path + "': File too large");
    EXPECT_THROW(ReadBytes(folder.Read("record")), std::exception);
}

TEST_F(RunOnceRecord, IsWrittenOrReadWholeOrNotAtAllWhenMemoryIsShort) {
    const Names names{"a", "bb", "ccc"};
    WriteRunOnceRecord(path, names);
    const std::string written = folder.Read("record");
    const auto fails = [](int allocations, const auto& action) {
        const test::FailingCall failing(test::Call::OperatorNew, allocations, 1);
        try {
            action();
            return false;
        } catch (const std::exception&) {
            return true;
        }
    };

    Names read;
    int allocations = 0;
    while (fails(allocations, [&] { WriteRunOnceRecord(path, names); })) {
        EXPECT_EQ(folder.Read("record"), written) << allocations;
        ASSERT_LT(++allocations, 1000);
    }
    EXPECT_GT(allocations, 2);
    for (allocations = 0; fails(allocations, [&] { ReadRunOnceRecord(path, read); }); ++allocations) {
        ASSERT_LT(allocations, 1000);
        read.clear();
    }
    EXPECT_EQ(read, names);
}

TEST_F(RunOnceRecord, ThatDoesNotReachTheDiskSaysSo) {
    EXPECT_EQ(test::InForkedChild([&] {
                  test::FilterSyscalls({{.number = SYS_fsync, .error = EIO}});
                  return WriteFailure(path, {"a"});
              }),
              "unable to write '" + path + "': Input/output error");
}

}  // namespace
}  // namespace lofter
