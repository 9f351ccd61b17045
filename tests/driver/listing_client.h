// A caller that lists directories through the driver and looks at every byte of the answers.
#pragma once

#include "dir/directory.h"
#include "tests/driver/request_log.h"
#include "tests/support/driver_fixture.h"

namespace test {

struct Entry {
    std::u16string Name;
    ULONG Attributes;
    LONGLONG Size, Creation, LastAccess, LastWrite, Change;
};

// Reads the entries of a packed buffer and checks that it is packed as callers rely on.
inline std::vector<Entry> Unpack(const std::vector<UCHAR> &Buffer, ULONG_PTR Information, ULONG InfoClass) {
    std::vector<Entry> Entries;
    const ULONG Fixed = NtFsdDirEntryFixedSize(InfoClass);
    for (ULONG_PTR At = 0; Information != 0;) {
        EXPECT_EQ(At % 8, 0u);
        ULONG Next;
        memcpy(&Next, Buffer.data() + At, sizeof(Next));
        ULONG NameBytes;
        const ULONG LengthAt = InfoClass == FileNamesInformation ? 8 : 60;
        memcpy(&NameBytes, Buffer.data() + At + LengthAt, sizeof(NameBytes));
        Entry Found = {};
        Found.Name.resize(NameBytes / 2);
        memcpy(Found.Name.data(), Buffer.data() + At + Fixed, NameBytes);
        if (InfoClass != FileNamesInformation) {
            memcpy(&Found.Attributes, Buffer.data() + At + 56, sizeof(ULONG));
            memcpy(&Found.Size, Buffer.data() + At + 40, sizeof(LONGLONG));
            memcpy(&Found.Creation, Buffer.data() + At + 8, 4 * sizeof(LONGLONG));
        }
        Entries.push_back(Found);
        if (Next == 0) {
            EXPECT_EQ(Information, At + Fixed + NameBytes) << "Information ends with the last entry";
            break;
        }
        for (ULONG_PTR Gap = At + Fixed + NameBytes; Gap < At + Next; ++Gap) {
            EXPECT_EQ(Buffer[Gap], 0) << "byte " << Gap << " is counted and was never written";
        }
        At += Next;
    }
    return Entries;
}

// Over a server with the directory \srv\vol\d.
class Listing : public DriverFixture {
protected:
    Listing() {
        Provider.AddDirectory(u"\\srv\\vol\\d");
    }

    struct Answer {
        NTSTATUS Status;
        ULONG_PTR Information;
        std::vector<UCHAR> Buffer;
    };

    // For answers that fail: their caller is told no count, but the driver counts.
    const RequestLog *Completed = nullptr;

    HANDLE OpenDirectory(std::u16string_view Path) {
        return MustOpen(Path, AsDirectory);
    }

    // One query. The bytes that Information does not cover must come back as they went in.
    Answer Query(HANDLE Directory, ULONG Length, const char16_t *Mask = nullptr, bool Restart = false,
                 bool Single = false, ULONG InfoClass = FileDirectoryInformation) {
        constexpr UCHAR Pattern = 0xA5;
        Answer Result = {STATUS_UNSUCCESSFUL, 0, std::vector<UCHAR>(Length, Pattern)};
        std::u16string Text = Mask != nullptr ? Mask : u"";
        UNICODE_STRING Name = {static_cast<USHORT>(Text.size() * 2), static_cast<USHORT>(Text.size() * 2), Text.data()};
        IO_STATUS_BLOCK IoStatus = {};
        HANDLE Done = nullptr;
        EXPECT_EQ(CreateEventHandle(NotificationEvent, false, &Done), STATUS_SUCCESS);
        Result.Status = NtQueryDirectoryFile(Directory, Done, nullptr, nullptr, &IoStatus, Result.Buffer.data(), Length,
                                             InfoClass, Single, Mask != nullptr ? &Name : nullptr, Restart);
        if (Result.Status == STATUS_PENDING) {
            NtWaitForSingleObject(Done, FALSE, nullptr);
            Result.Status = IoStatus.Status;
        }
        NtClose(Done);
        Result.Information = Completed != nullptr ? Completed->LastInformation() : IoStatus.Information;
        EXPECT_LE(Result.Information, Length);
        for (ULONG_PTR At = Result.Information; At < Length; ++At) {
            EXPECT_EQ(Result.Buffer[At], Pattern) << "byte " << At << " is beyond what was reported";
        }
        return Result;
    }

    static void AddNames(const Answer &Result, std::vector<std::u16string> &Names,
                         ULONG InfoClass = FileDirectoryInformation) {
        for (const Entry &One : Unpack(Result.Buffer, Result.Information, InfoClass)) {
            Names.push_back(One.Name);
        }
    }
    std::vector<std::u16string> Names(HANDLE Directory, const char16_t *Mask = nullptr) {
        std::vector<std::u16string> Found;
        Answer Result = Query(Directory, 65536, Mask, true);
        for (; Result.Status == STATUS_SUCCESS; Result = Query(Directory, 65536)) {
            AddNames(Result, Found);
        }
        EXPECT_TRUE(Result.Status == STATUS_NO_MORE_FILES || Result.Status == STATUS_NO_SUCH_FILE);
        return Found;
    }

    std::string LastMask() {
        for (const auto &Line : Provider.Calls()) {
            if (Line.find("EnumerateDirectory") != std::string::npos) {
                return Line;
            }
        }
        return "";
    }
};

} // namespace test
