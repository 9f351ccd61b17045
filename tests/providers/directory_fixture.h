// A directory Provider over a fresh temporary directory, called through its table as the driver does.
#pragma once

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "providers/directory/directory_provider.h"
#include "providers/directory/errno_status.h"
#include "providers/directory/probe.h"

namespace providers::directory {

namespace fs = std::filesystem;

inline constexpr ULONG ReadWrite = RV_ACCESS_READ | RV_ACCESS_WRITE;
inline constexpr RVSTATUS Done = RVSTATUS::Success;

// One listed entry.
struct Listed {
    std::u16string Name;
    std::u16string Short;
    ULONG Attributes;
    ULONG64 Size;
};

inline std::u16string ServedNumber(int Number) {
    const std::string Digits = std::to_string(Number);
    return {Digits.begin(), Digits.end()};
}

class DirectoryProviderTest : public testing::Test {
protected:
    void SetUp() override {
        char Template[] = "/tmp/dirprov-test-XXXXXX";
        ASSERT_NE(mkdtemp(Template), nullptr);
        Outer = Template;
        Root = Outer / "export";
        std::filesystem::create_directory(Root);
        ASSERT_EQ(Provider.AddExport(u"srv", u"Vol", Root, Options()), "");
        Fsd = Provider.Interface();
        Table = Fsd->Table;
        ASSERT_EQ(Table->RVFsdOpenVolume(Fsd, nullptr, u"\\SRV\\vol", &Volume), RVSTATUS::Success);
    }

    void TearDown() override {
        EXPECT_EQ(Table->RVFsdCloseVolume(Fsd, nullptr, Volume), RVSTATUS::Success);
        EXPECT_EQ(providers::directory::ObjectsOf(Fsd), 0u) << "handles left open";
        EXPECT_EQ(Table->Release(Fsd), 0u);
        std::filesystem::permissions(Root, std::filesystem::perms::owner_all);
        std::filesystem::remove_all(Outer);
    }

    virtual ExportOptions Options() const {
        return {};
    }

    void Write(const std::string &Name, std::string_view Text) const {
        std::ofstream(Root / Name, std::ios::binary) << Text;
    }
    std::string Read(const std::string &Name) const {
        std::ifstream File(Root / Name, std::ios::binary);
        return {std::istreambuf_iterator<char>(File), {}};
    }

    RVSTATUS Open(const std::u16string &Path, RVHANDLE &Handle, ULONG Access = RV_ACCESS_READ,
                  ULONG Disposition = RV_DISPOSITION_OPEN_EXISTING, ULONG Share = 7, ULONG Attributes = 0,
                  ULONG Options = 0) {
        return Table->RVFsdCreateFile(Fsd, nullptr, Volume, Path.c_str(), Access, Share, Disposition, Options,
                                      Attributes, &Handle, &Action);
    }
    // The status of opening, without keeping the file.
    RVSTATUS Try(const std::u16string &Path, ULONG Access = RV_ACCESS_READ,
                 ULONG Disposition = RV_DISPOSITION_OPEN_EXISTING, ULONG Share = 7) {
        RVHANDLE Handle = 0;
        const RVSTATUS Status = Open(Path, Handle, Access, Disposition, Share);
        EXPECT_EQ(Handle != 0, !RvIsError(Status));
        if (Handle != 0) {
            Close(Handle);
        }
        return Status;
    }
    void Close(RVHANDLE Handle) {
        EXPECT_EQ(Table->RVFsdCloseFile(Fsd, nullptr, Handle), RVSTATUS::Success);
    }
    RVSTATUS ReadAt(RVHANDLE Handle, LONG64 Offset, size_t Length, std::string &Text) {
        Text.assign(Length, '\0');
        ULONG64 Bytes = Length;
        const RVSTATUS Status = Table->RVFsdReadFile(Fsd, nullptr, Handle, &Offset, Length, Text.data(), &Bytes);
        Text.resize(Bytes);
        return Status;
    }
    RVSTATUS WriteAt(RVHANDLE Handle, LONG64 Offset, std::string Text, ULONG64 *Bytes = nullptr) {
        return Table->RVFsdWriteFile(Fsd, nullptr, Handle, &Offset, Text.size(), Text.data(), Bytes);
    }
    RVSTATUS SetSize(RVHANDLE Handle, LONG64 Size) {
        return Table->RVFsdWriteFile(Fsd, nullptr, Handle, &Size, 0, nullptr, nullptr);
    }
    // What a file of this name holds for a client; the status as text when it cannot be opened.
    std::string Content(const std::u16string &Path) {
        RVHANDLE Handle = 0;
        const RVSTATUS Status = Open(Path, Handle);
        std::string Text;
        if (RvIsError(Status)) {
            return "failed " + std::to_string(RvCode(Status));
        }
        EXPECT_EQ(ReadAt(Handle, 0, 4096, Text), RVSTATUS::Success);
        Close(Handle);
        return Text;
    }

    RVSTATUS OpenFolder(const std::u16string &Path, RVHANDLE &Handle) {
        return Table->RVFsdOpenDirectory(Fsd, nullptr, Volume, Path.c_str(), &Handle);
    }
    RVSTATUS MakeFolder(const std::u16string &Path) {
        return Table->RVFsdCreateDirectory(Fsd, nullptr, Volume, Path.c_str());
    }
    RVSTATUS Delete(const std::u16string &Path) {
        return Table->RVFsdDeleteFile(Fsd, nullptr, Volume, Path.c_str());
    }
    RVSTATUS DeleteFolder(const std::u16string &Path) {
        return Table->RVFsdDeleteDirectory(Fsd, nullptr, Volume, Path.c_str());
    }
    RVSTATUS Move(const std::u16string &From, const std::u16string &To) {
        return Table->RVFsdMoveFile(Fsd, nullptr, Volume, From.c_str(), Volume, To.c_str());
    }

    // One batch; the entries are appended.
    RVSTATUS Batch(RVHANDLE Folder, const char16_t *Mask, ULONG &Key, std::vector<Listed> &Out, bool WithShort = false,
                   ULONG Size = 12288, UCHAR Flag = 0) {
        std::vector<UCHAR> Buffer(Size);
        const RVSTATUS Status =
            WithShort ? Table->RVFsdEnumerateDirectoryEx(Fsd, nullptr, Folder, Mask, 0, &Key, &Size, Buffer.data())
                      : Table->RVFsdEnumerateDirectory(Fsd, nullptr, Folder, Mask, Flag, &Key, &Size, Buffer.data());
        for (size_t At = 0; !RvIsError(Status);) {
            const auto Get = [&](size_t Offset, auto &Value) {
                ASSERT_LE(At + Offset + sizeof Value, Size) << "a record outside the batch";
                memcpy(&Value, &Buffer[At + Offset], sizeof Value);
            };
            ULONG Next = 0;
            ULONG Units = 0;
            Listed Entry{};
            const size_t NameAt = WithShort ? 88 : 60;
            Get(0, Next);
            Get(4, Entry.Attributes);
            Get(32, Entry.Size);
            Get(WithShort ? 84 : 56, Units);
            Entry.Name.resize(Units);
            EXPECT_LE(At + NameAt + Units * 2, Size) << "a name outside the batch";
            memcpy(Entry.Name.data(), &Buffer[At + NameAt], Units * 2);
            if (WithShort) {
                Get(56, Units);
                Entry.Short.resize(Units);
                memcpy(Entry.Short.data(), &Buffer[At + 60], Units * 2);
            }
            Out.push_back(Entry);
            if (Next == 0) {
                break;
            }
            At += Next;
        }
        return Status;
    }
    std::vector<Listed> List(RVHANDLE Folder, const char16_t *Mask = u"*", bool WithShort = false, ULONG Size = 12288) {
        std::vector<Listed> Out;
        ULONG Key = 0;
        RVSTATUS Status;
        while (!RvIsError(Status = Batch(Folder, Mask, Key, Out, WithShort, Size))) {
        }
        EXPECT_EQ(Status, Failure(CODE_NO_MORE_FILES));
        return Out;
    }
    std::vector<std::u16string> Names(RVHANDLE Folder, const char16_t *Mask = u"*", ULONG Size = 12288) {
        std::vector<std::u16string> Out;
        for (const Listed &Entry : List(Folder, Mask, false, Size)) {
            Out.push_back(Entry.Name);
        }
        return Out;
    }

    std::filesystem::path Outer;
    std::filesystem::path Root;
    DirectoryProvider Provider;
    RVIOM_FSD *Fsd = nullptr;
    const RVIOM_FSD_TABLE *Table = nullptr;
    RVHANDLE Volume = 0;
    ULONG Action = 0;
};

} // namespace providers::directory
