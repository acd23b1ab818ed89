// What every device tree promises, whatever devices the machine has.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "conformance/Implementation.h"
#include "platform/DeviceRegistry.h"

namespace korvane {

class DeviceRegistrySubject {
  public:
    virtual ~DeviceRegistrySubject() = default;
    virtual DeviceRegistry& registry() = 0;
    // Makes a device that can be pulled: its BSD name; empty where none can be made.
    virtual std::string plug() = 0;
    // Pulls it again.
    virtual void pull() = 0;
    // Does the work within one turn of the loop, one that has not begun yet.
    virtual void inATurn(const std::function<void()>& work) = 0;
};

class DeviceRegistryConformance
    : public testing::TestWithParam<Implementation<DeviceRegistrySubject>> {
  protected:
    static constexpr std::array<const char*, 4> kClasses{"IOMedia", "IODVDMedia", "IOCDMedia",
                                                         "IOBlockStorageDevice"};

    DeviceRegistryConformance() : subject_(GetParam().make()) {}

    void SetUp() override {
        if (!registry().services("IOMedia") || registry().services("IOMedia")->empty()) {
            GTEST_SKIP() << "this machine has no disk";
        }
    }
    DeviceRegistry& registry() { return subject_->registry(); }
    std::vector<ServiceId> services(const char* className) {
        const auto found = registry().services(className);
        EXPECT_TRUE(found) << className;
        return found.value_or(std::vector<ServiceId>{});
    }
    std::string bsdNameOf(ServiceId service) {
        const auto name = registry().property(service, "BSD Name");
        return name && name->string() ? *name->string() : "";
    }

    std::unique_ptr<DeviceRegistrySubject> subject_;
};

TEST_P(DeviceRegistryConformance, HasNoServicesOfAClassThatNobodyKnows) {
    const auto found = registry().services("NoSuchClass");
    ASSERT_TRUE(found);
    EXPECT_TRUE(found->empty());
}

TEST_P(DeviceRegistryConformance, GivesEveryMediaAName) {
    for (const ServiceId media : services("IOMedia")) EXPECT_NE(bsdNameOf(media), "");
}

TEST_P(DeviceRegistryConformance, CountsOpticalMediaAsMedia) {
    const auto media = services("IOMedia");
    for (const char* className : {"IODVDMedia", "IOCDMedia"}) {
        for (const ServiceId optical : services(className)) {
            EXPECT_THAT(media, testing::Contains(optical));
        }
    }
}

TEST_P(DeviceRegistryConformance, FindsByNameWhatAWalkFinds) {
    for (const char* className : kClasses) {
        std::set<std::string> names{"no such device", ""};
        for (const ServiceId service : services(className)) names.insert(bsdNameOf(service));
        for (const std::string& name : names) {
            std::vector<ServiceId> walked;
            for (const ServiceId service : services(className)) {
                const auto own = registry().property(service, "BSD Name");
                if (own && own->string() && *own->string() == name) walked.push_back(service);
            }
            EXPECT_THAT(registry().servicesNamed(className, name),
                        testing::Optional(testing::ElementsAreArray(walked)))
                << className << " " << name;
        }
    }
}

TEST_P(DeviceRegistryConformance, GivesOnePropertyAsItGivesThemAll) {
    for (const char* className : kClasses) {
        for (const ServiceId service : services(className)) {
            const auto all = registry().properties(service);
            ASSERT_TRUE(all);
            for (const Dictionary::Entry& entry : *all) {
                const auto one = registry().property(service, entry.key);
                ASSERT_TRUE(one) << entry.key;
                EXPECT_TRUE(*one == entry.value) << entry.key;
            }
            EXPECT_FALSE(registry().property(service, "No Such Key"));
        }
    }
}

TEST_P(DeviceRegistryConformance, LeadsFromEveryServiceUpToARoot) {
    for (const ServiceId media : services("IOMedia")) {
        std::set<ServiceId> passed{media};
        for (auto above = registry().parent(media); above; above = registry().parent(*above)) {
            ASSERT_TRUE(passed.insert(*above).second) << "the walk comes back to where it was";
            EXPECT_TRUE(registry().properties(*above));
        }
        EXPECT_GT(passed.size(), 1U) << "a media hangs on something";
    }
}

TEST_P(DeviceRegistryConformance, HasFirstChildrenThatKnowTheirParent) {
    std::size_t children = 0;
    for (const char* className : kClasses) {
        for (const ServiceId service : services(className)) {
            if (const auto child = registry().firstChild(service)) {
                EXPECT_EQ(registry().parent(*child), service);
                ++children;
            }
        }
    }
    EXPECT_GT(children, 0U);
}

TEST_P(DeviceRegistryConformance, AnswersTheSameUntilTheTreeChanges) {
    const auto generation = registry().generation();
    EXPECT_TRUE(generation);
    for (const char* className : kClasses) EXPECT_EQ(services(className), services(className));
    EXPECT_EQ(registry().generation(), generation);
}

TEST_P(DeviceRegistryConformance, GivesNumberedDisksAPathAndNoPathTwice) {
    std::set<std::string> paths;
    for (unsigned number = 0; number < 25; ++number) {
        const auto path = registry().diskPath(number);
        if (!path) continue;
        EXPECT_TRUE(path->starts_with("/dev/")) << *path;
        EXPECT_TRUE(paths.insert(*path).second) << *path;
    }
}

TEST_P(DeviceRegistryConformance, CannotOpenADriveThatIsNotThere) {
    const SmartOpening opened = registry().openSmart(ServiceId{0xffffffff});
    EXPECT_EQ(opened.smart, nullptr);
    EXPECT_NE(opened.status, kDriveSuccess);
}

TEST_P(DeviceRegistryConformance, AnswersWithTheStateAtTheFirstQuestionOfATurn) {
    std::string name;
    std::optional<std::vector<ServiceId>> plugged;
    subject_->inATurn([&] {
        name = subject_->plug();
        plugged = registry().servicesNamed("IOMedia", name);
    });
    if (name.empty()) GTEST_SKIP() << "no device can be made here";
    EXPECT_THAT(plugged, testing::Optional(testing::SizeIs(1))) << name;
    std::optional<std::vector<ServiceId>> pulled;
    subject_->inATurn([&] {
        subject_->pull();
        pulled = registry().servicesNamed("IOMedia", name);
    });
    EXPECT_THAT(pulled, testing::Optional(testing::IsEmpty())) << name;
}

TEST_P(DeviceRegistryConformance, KnowsNothingOfAServiceThatIsGone) {
    std::string name;
    std::optional<std::uint64_t> generation;
    ServiceId media{};
    subject_->inATurn([&] {
        name = subject_->plug();
        const auto found = registry().servicesNamed("IOMedia", name);
        if (name.empty()) return;
        ASSERT_THAT(found, testing::Optional(testing::SizeIs(1))) << name;
        media = found->front();
        EXPECT_EQ(bsdNameOf(media), name);
        generation = registry().generation();
    });
    if (name.empty()) GTEST_SKIP() << "no device can be made here";
    subject_->inATurn([&] {
        subject_->pull();
        EXPECT_NE(registry().generation(), generation);
        EXPECT_FALSE(registry().property(media, "BSD Name"));
        EXPECT_FALSE(registry().properties(media));
        EXPECT_FALSE(registry().parent(media));
        EXPECT_FALSE(registry().firstChild(media));
    });
}

}  // namespace korvane
