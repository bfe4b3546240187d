#include <memory>

#include <gtest/gtest.h>

#include <ZembraCoreSDK/QVDataObject.h>

#include "model-library/Branch.h"

namespace zembra {
namespace {

class Company : public QVDataObject {
    ZMB_DATA_OBJECT(Company, zembra::QVDataObject)

public:
    ZMB_PROPERTY(Branch, mainBranch);
};

class Headquarters : public Branch {
    ZMB_DATA_OBJECT(Headquarters, Branch)

public:
    ZMB_PROPERTY(NSNumber, floorCount);
};

TEST(ModelLibraryTests, AClassIsTheSameInEachLibrary) {
    ASSERT_NE(&branchClassInLibrary(), &Branch::staticClass()) << "else this proves nothing";
    EXPECT_TRUE(branchClassInLibrary().isSubclassOf(Branch::staticClass()));
    EXPECT_TRUE(Headquarters::staticClass().isSubclassOf(branchClassInLibrary()));
    EXPECT_FALSE(branchClassInLibrary().isSubclassOf(Company::staticClass()));

    const Value json = Value::dictionary({{"street_name", "Elm"}, {"next_branch", Value::dictionary({})}});
    Company company;
    company.mainBranch = branchMadeInLibrary(json);
    ASSERT_TRUE(company.mainBranch);
    EXPECT_EQ(company.mainBranch->streetName.get(), "Elm");
    EXPECT_TRUE(company.mainBranch->nextBranch);

    // A class from the library given to the mapping here.
    company.setPropertyValue(json, "mainBranch", branchClassInLibrary());
    EXPECT_EQ(company.mainBranch->streetName.get(), "Elm");
    EXPECT_EQ(Headquarters::objectWithJSON(json)->streetName.get(), "Elm");
}

}  // namespace
}  // namespace zembra
