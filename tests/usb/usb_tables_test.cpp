// The printer enumerations over usbtab, the USB library and nptab.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <syslog.h>

#include <string>
#include <vector>

#include "qoraprinter.h"
#include "qp_test.hpp"
#include "usb_rig.hpp"

namespace {

std::vector<std::string> items(PQLIBSZLIST list) {
    std::vector<std::string> out;
    for (int i = 0; list && i < list->nItem; ++i) out.push_back(QLIBCSzListGet(list, i));
    return out;
}

class UsbTables : public ::testing::Test {
protected:
    void SetUp() override {
        usbrig::setup();
        usbrig::add_device({.busid = "1-1"});
        usbrig::add_device({.busid = "1-2", .vendor = "03f0", .product = "002a", .serial = "XZ9"});
        usbrig::add_device({.busid = "1-3", .vendor = "0781", .product = "5567", .serial = "DISK",
                            .iface_class = "08"});
        usbrig::add_device({.busid = "1-4", .serial = ""});
    }
};

TEST_F(UsbTables, UsbtabEnumReplacesTheCallersBlock) {
    qpt::write_file("/tmp/usbtab", "lp1=\"1-2\"\nlp0=\"1-1\"\n");
    char **names = static_cast<char **>(malloc(16));  // freed by the call (ASan would see a leak)
    int count = -1;
    ASSERT_EQ(0, QORAPrinterUsbtabEnum(&names, &count));
    ASSERT_EQ(2, count);
    EXPECT_STREQ("lp1", names[0]);
    EXPECT_STREQ("lp0", names[1]);
    free(names);

    names = nullptr;
    qpt::remove_file("/tmp/usbtab");
    ASSERT_EQ(0, QORAPrinterUsbtabEnum(&names, &count));
    EXPECT_EQ(0, count);
    free(names);

    EXPECT_EQ(-1, QORAPrinterUsbtabEnum(nullptr, &count));
    EXPECT_EQ(-1, QORAPrinterUsbtabEnum(&names, nullptr));
    EXPECT_EQ(ERR_BAD_PARAMETER, QLIBCErrGet());
}

TEST_F(UsbTables, OnlyPrintersWithAnIdAreListedUsbFirst) {
    qpt::write_file("/tmp/usbtab", "lp0=\"1-1\"\nlp1=\"1-3\"\nlp2=\"1-4\"\nlp3=\"1-2\"\n");
    qpt::write_file("/usr/qora/etc/nptab", "192.168.1.20=\"Office_Laser\"\n\n10.0.0.5=\"a=b\"\n");

    PQLIBSZLIST list = QLIBCSzListAlloc(4);
    QLIBCSzListPush(&list, "old");  // the caller's old list is freed and replaced
    ASSERT_EQ(4, QORAPrinterEnumCount(3, &list));
    std::vector<std::string> expect = {"04a9:1827:A1B2C3", "03f0:002a:XZ9", "192.168.1.20-Office_Laser",
                                       "10.0.0.5-a"};
    EXPECT_EQ(expect, items(list));

    ASSERT_EQ(2, QORAPrinterEnumCount(2, &list));
    EXPECT_EQ(std::vector<std::string>(expect.begin() + 2, expect.end()), items(list));
    ASSERT_EQ(0, QORAPrinterEnumCount(0, &list));
    ASSERT_NE(nullptr, list);
    EXPECT_EQ(0, list->nItem);
    EXPECT_EQ(2, QORAPrinterEnumCount(1, nullptr));

    // The ID enumeration appends to what the caller's list holds.
    ASSERT_EQ(0, QORAPrinterProcUsbtabIdEnum(&list));
    ASSERT_EQ(0, QORAPrinterProcUsbtabIdEnum(&list));
    EXPECT_EQ(4, list->nItem);
    QLIBCSzListFree(list);

    PQLIBSZLIST none = nullptr;
    EXPECT_EQ(-1, QORAPrinterProcUsbtabIdEnum(nullptr));
    EXPECT_EQ(-1, QORAPrinterProcUsbtabIdEnum(&none));
    EXPECT_EQ(ERR_BAD_PARAMETER, QLIBCErrGet());
}

TEST_F(UsbTables, FailedSourceHandsOutNoList) {
    qpt::write_file("/tmp/usbtab", "lp0=\"1-1\"\n");
    qpt::write_file("/usr/qora/etc/nptab", "192.168.1.20=\"Q\"\n# comment\n");
    PQLIBSZLIST list = QLIBCSzListAlloc(4);
    QLIBCSzListPush(&list, "kept");
    PQLIBSZLIST before = list;
    qpt::LogCapture log;
    EXPECT_EQ(-1, QORAPrinterEnumCount(3, &list));
    EXPECT_EQ(before, list);
    EXPECT_EQ(std::vector<std::string>{"kept"}, items(list));
    EXPECT_EQ(1u, log.count(LOG_ERR, "enum network printer id failed[0x")) << log.dump();
    QLIBCSzListFree(list);
}

}  // namespace
