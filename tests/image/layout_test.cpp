// The test build of the image exports the layouts that it was compiled with: they are this kernel's.
#include <algorithm>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "embedded/loader/driver_image.h"
#include "embedded/loader/layouts.h"
#include "provider/framework.h"

using namespace testing;

namespace embedded {
namespace {

TEST(ImageLayouts, AreThoseOfTheTestBuildAndADifferenceIsNamed) {
    ImageOptions Options;
    Options.Modules = {{"zelm.sys", "ZelmCreateInstance", reinterpret_cast<void *>(ZelmCreateInstance), 4}};
    const DriverImage Image(RVFSD_IMAGE_FOLDER "/RVFSD-test.sys", std::move(Options)); // compares, and is not refused
    const void *Table = Image.Export("RVFSD_Layouts");
    ASSERT_NE(Table, nullptr);
    EXPECT_THAT(CompareLayoutTable(Image, Table, SharedLayouts()), ElementsAre());
    ASSERT_GT(SharedLayouts().size(), 400u);

    std::vector<Layout> Ours = SharedLayouts();
    const auto Field = [&Ours](std::string_view Name) {
        return std::find_if(Ours.begin(), Ours.end(), [Name](const Layout &Each) { return Each.Name == Name; });
    };
    Field("IRP.IoStatus")->Value += 8;
    Field("FILE_OBJECT")->Value = 224;
    Field("RVIOM_FSD_TABLE.RVFsdReadFile")->Value += 8;
    Field("FILE_BASIC_INFORMATION")->Value = 36;
    EXPECT_THAT(CompareLayoutTable(Image, Table, Ours),
                ElementsAre(HasSubstr("IRP.IoStatus is at or has 48 bytes, this kernel's 56"),
                            HasSubstr("FILE_OBJECT is at or has 216 bytes, this kernel's 224"),
                            HasSubstr("RVIOM_FSD_TABLE.RVFsdReadFile is at or has 248 bytes, this kernel's 256"),
                            HasSubstr("FILE_BASIC_INFORMATION is at or has 40 bytes, this kernel's 36")));

    Ours = SharedLayouts();
    Ours.erase(Field("MDL.ByteCount"));
    Ours.push_back({"MDL.Pages", 48});
    EXPECT_THAT(
        CompareLayoutTable(Image, Table, Ours),
        ElementsAre(HasSubstr("MDL.ByteCount is unknown to this kernel"), HasSubstr("does not know MDL.Pages")));
}

} // namespace
} // namespace embedded
