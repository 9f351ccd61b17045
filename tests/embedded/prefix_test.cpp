#include "embedded/rtl/counted.h"
#include "embedded/rtl/rtl.h"

#include "embedded/ob/ob.h"
#include "embedded/rtl/upcase.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace embedded {
namespace {

// A name with its entry, in the table or out of it.
struct Name {
    explicit Name(std::u16string Spelling) : Text(std::move(Spelling)), String(ToUnicodeString(Text)) {
    }
    Name(const Name &) = delete;

    std::u16string Text;
    UNICODE_STRING String;
    UNICODE_PREFIX_TABLE_ENTRY Entry{};
};

std::u16string Folded(std::u16string_view Text) {
    std::u16string Upper(Text);
    for (WCHAR &Unit : Upper) {
        Unit = UpcaseUnit(Unit);
    }
    return Upper;
}

class PrefixTable : public testing::Test {
protected:
    PrefixTable() {
        RtlInitializeUnicodePrefix(&Table_);
    }
    ~PrefixTable() override {
        for (auto &Each : Names_) {
            RtlRemoveUnicodePrefix(&Table_, &Each.Entry);
        }
        EXPECT_EQ(PrefixTablesInUse(), 0u);
    }

    bool Insert(std::u16string Text) {
        Names_.emplace_back(std::move(Text));
        if (RtlInsertUnicodePrefix(&Table_, &Names_.back().String, &Names_.back().Entry)) {
            return true;
        }
        Names_.pop_back();
        return false;
    }

    void Remove(const std::u16string &Text) {
        auto At = std::find_if(Names_.begin(), Names_.end(), [&](const Name &Each) { return Each.Text == Text; });
        ASSERT_NE(At, Names_.end());
        RtlRemoveUnicodePrefix(&Table_, &At->Entry);
        Names_.erase(At);
    }

    // The name that Find returns for Text, "(none)" when there is none.
    std::u16string Find(std::u16string Text, ULONG CaseInsensitiveIndex = 0) {
        UNICODE_STRING FullName = ToUnicodeString(Text);
        auto *Found = RtlFindUnicodePrefix(&Table_, &FullName, CaseInsensitiveIndex);
        return Found == nullptr ? u"(none)"
                                : std::u16string(Found->Prefix->Buffer, Found->Prefix->Length / sizeof(WCHAR));
    }

    std::vector<std::u16string> Walk() {
        std::vector<std::u16string> All;
        for (auto *Each = RtlNextUnicodePrefix(&Table_, TRUE); Each != nullptr;
             Each = RtlNextUnicodePrefix(&Table_, FALSE)) {
            All.emplace_back(Each->Prefix->Buffer, Each->Prefix->Length / sizeof(WCHAR));
        }
        return All;
    }

    UNICODE_PREFIX_TABLE Table_;
    std::list<Name> Names_;
};

TEST_F(PrefixTable, ATableSetUpAgainInTheSamePlaceForgetsItsNames) {
    ASSERT_TRUE(Insert(u"\\a"));
    Table_ = {};
    EXPECT_EQ(PrefixTablesInUse(), 1u);
    RtlInitializeUnicodePrefix(&Table_);
    EXPECT_EQ(PrefixTablesInUse(), 0u);
    EXPECT_EQ(Find(u"\\a"), u"(none)");
    Names_.clear();
}

TEST_F(PrefixTable, WalksInOrderOfInsertionAndSurvivesRemovals) {
    const std::vector<std::u16string> All = {u"\\c", u"\\a", u"\\b", u"\\A"};
    for (const auto &Each : All) {
        ASSERT_TRUE(Insert(Each));
    }
    EXPECT_EQ(Walk(), All);
    ASSERT_NE(RtlNextUnicodePrefix(&Table_, TRUE), nullptr);
    ASSERT_NE(RtlNextUnicodePrefix(&Table_, FALSE), nullptr);
    Remove(u"\\a");
    auto *Next = RtlNextUnicodePrefix(&Table_, FALSE);
    ASSERT_NE(Next, nullptr);
    EXPECT_EQ(Next->Prefix->Buffer[1], u'b');
    Remove(u"\\c");
    Next = RtlNextUnicodePrefix(&Table_, FALSE);
    ASSERT_NE(Next, nullptr);
    EXPECT_EQ(Next->Prefix->Buffer[1], u'A');
    EXPECT_EQ(RtlNextUnicodePrefix(&Table_, FALSE), nullptr);
}

TEST_F(PrefixTable, NamesDeeperThanTheIndexCountsAreFoundToo) {
    std::u16string Path;
    for (int Depth = 0; Depth < 200; ++Depth) {
        Path += u"\\d";
        ASSERT_TRUE(Insert(Path));
    }
    for (size_t Depth : {1, 62, 63, 64, 65, 199, 200}) {
        std::u16string Name = Path.substr(0, Depth * 2);
        EXPECT_EQ(Find(Name + u"x"), Depth == 1 ? u"(none)" : Path.substr(0, Depth * 2 - 2));
        EXPECT_EQ(Find(Folded(Name) + u"\\x"), Name);
    }
}

using PrefixTableDeathTest = PrefixTable;

TEST_F(PrefixTableDeathTest, ANameThatChangedWhileInTheTableIsReported) {
    ASSERT_TRUE(Insert(u"\\abc"));
    EXPECT_DEATH(
        {
            Names_.front().Text[2] = u'x';
            RtlRemoveUnicodePrefix(&Table_, &Names_.front().Entry);
        },
        "changed while it was in the table");
    EXPECT_DEATH(
        {
            std::u16string Elsewhere = Names_.front().Text;
            Names_.front().String.Buffer = Elsewhere.data();
            RtlRemoveUnicodePrefix(&Table_, &Names_.front().Entry);
        },
        "moved while it was in the table");
}

TEST_F(PrefixTableDeathTest, AnEntryThatIsNotInTheTableIsReported) {
    ASSERT_TRUE(Insert(u"\\abc"));
    Name Other(u"\\other");
    EXPECT_DEATH(RtlRemoveUnicodePrefix(&Table_, &Other.Entry), "is not in the table");
    UNICODE_PREFIX_TABLE OtherTable;
    RtlInitializeUnicodePrefix(&OtherTable);
    ASSERT_TRUE(RtlInsertUnicodePrefix(&OtherTable, &Other.String, &Other.Entry));
    EXPECT_DEATH(RtlRemoveUnicodePrefix(&Table_, &Other.Entry), "is in another table");
    RtlRemoveUnicodePrefix(&OtherTable, &Other.Entry);
}

// The same table as a plain list, searched from end to end.
class NaiveTable {
public:
    bool Insert(Name *New) {
        if (std::any_of(Names_.begin(), Names_.end(), [&](Name *Each) { return Each->Text == New->Text; })) {
            return false;
        }
        Names_.push_back(New);
        return true;
    }
    void Remove(Name *Old) {
        std::erase(Names_, Old);
    }
    // All right answers: the longest matching names, those spelled as the full name alone if there are such.
    std::vector<Name *> Find(const std::u16string &FullName, size_t ExactUnits) const {
        std::vector<Name *> Best;
        for (Name *Each : Names_) {
            size_t Length = Each->Text.size();
            if (!IsPrefix(Each->Text, FullName, ExactUnits) || (!Best.empty() && Length < Best[0]->Text.size())) {
                continue;
            }
            if (!Best.empty() && Length > Best[0]->Text.size()) {
                Best.clear();
            }
            Best.push_back(Each);
        }
        for (Name *Each : Best) {
            if (FullName.starts_with(Each->Text)) {
                return {Each};
            }
        }
        return Best;
    }
    const std::vector<Name *> &All() const {
        return Names_;
    }

private:
    static bool IsPrefix(const std::u16string &Prefix, const std::u16string &Full, size_t ExactUnits) {
        size_t Length = Prefix.size();
        if (Length > Full.size() || Folded(Prefix) != Folded(Full.substr(0, Length)) ||
            Prefix.substr(0, ExactUnits) != Full.substr(0, std::min(Length, ExactUnits))) {
            return false;
        }
        return Length == Full.size() || Full[Length] == u'\\' || Prefix == u"\\";
    }

    std::vector<Name *> Names_;
};

std::u16string RandomPath(std::mt19937 &Random) {
    static const std::u16string_view Components[] = {u"a",   u"A",       u"b",        u"ab",     u"aB",
                                                     u"",    u"abcd",    u"abcde",    u"\u00E9", u"\u00C9x",
                                                     u"[@]", u"\u017Fs", u"\u0436zZ", u"dir",    u"Dir"};
    std::u16string Path;
    for (unsigned Left = Random() % 6; Left > 0; --Left) {
        Path += u'\\';
        Path += Components[Random() % std::size(Components)];
    }
    return Path.empty() && Random() % 2 == 0 ? u"\\" : Random() % 10 == 0 && !Path.empty() ? Path.substr(1) : Path;
}

TEST(PrefixTableProperty, AgreesWithAPlainListOverRandomNames) {
    for (unsigned Seed = 1; Seed <= 8; ++Seed) {
        SCOPED_TRACE(Seed);
        std::mt19937 Random(Seed);
        UNICODE_PREFIX_TABLE Table;
        RtlInitializeUnicodePrefix(&Table);
        NaiveTable Naive;
        std::vector<std::unique_ptr<Name>> Pool;
        // The table grows for a while, then shrinks to nothing.
        for (int Step = 0; Step < 3000; ++Step) {
            bool Growing = Step < 1500;
            if (Random() % 4 < (Growing ? 3u : 1u)) {
                auto New = std::make_unique<Name>(RandomPath(Random));
                bool Inserted = RtlInsertUnicodePrefix(&Table, &New->String, &New->Entry);
                ASSERT_EQ(Inserted, Naive.Insert(New.get()));
                if (Inserted) {
                    Pool.push_back(std::move(New));
                }
            } else if (!Pool.empty()) {
                std::swap(Pool[Random() % Pool.size()], Pool.back());
                RtlRemoveUnicodePrefix(&Table, &Pool.back()->Entry);
                Naive.Remove(Pool.back().get());
                Pool.pop_back();
            }
            std::u16string FullName = RandomPath(Random);
            UNICODE_STRING String = ToUnicodeString(FullName);
            ULONG CaseIndex = Random() % 3 == 0 ? Random() % 8 : 0;
            auto *Found = RtlFindUnicodePrefix(&Table, &String, CaseIndex);
            std::vector<Name *> Expected = Naive.Find(FullName, CaseIndex);
            if (Expected.empty()) {
                ASSERT_EQ(Found, nullptr);
            } else {
                ASSERT_TRUE(
                    std::any_of(Expected.begin(), Expected.end(), [&](Name *Each) { return &Each->Entry == Found; }));
            }
        }
        std::vector<UNICODE_PREFIX_TABLE_ENTRY *> Walked;
        for (auto *Each = RtlNextUnicodePrefix(&Table, TRUE); Each != nullptr;
             Each = RtlNextUnicodePrefix(&Table, FALSE)) {
            Walked.push_back(Each);
        }
        ASSERT_EQ(Walked.size(), Naive.All().size());
        for (size_t Index = 0; Index < Walked.size(); ++Index) {
            ASSERT_EQ(Walked[Index], &Naive.All()[Index]->Entry);
        }
        for (auto &Each : Pool) {
            RtlRemoveUnicodePrefix(&Table, &Each->Entry);
        }
        ASSERT_EQ(PrefixTablesInUse(), 0u);
    }
}

} // namespace
} // namespace embedded
