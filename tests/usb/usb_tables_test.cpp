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

TEST(UsbTables, OnlyPrintersWithAnIdAreListedUsbFirstAndAFailedSourceHandsOutNoList) {
    usbrig::setup();
    usbrig::add_device({.busid = "1-1"});
    usbrig::add_device({.busid = "1-2", .vendor = "03f0", .product = "002a", .serial = "XZ9"});
    usbrig::add_device({.busid = "1-3", .vendor = "0781", .product = "5567", .serial = "DISK", .iface_class = "08"});
    usbrig::add_device({.busid = "1-4", .serial = ""});
    qpt::write_file("/tmp/usbtab", "lp3=\"1-1\"\nlp1=\"1-3\"\nlp2=\"1-4\"\nlp0=\"1-2\"\n");
    qpt::write_file("/usr/qora/etc/nptab", "192.168.1.20=\"Office\"\n");

    char **names = static_cast<char **>(malloc(16));  // freed by the call (ASan would see a leak)
    int count = -1;
    ASSERT_EQ(0, QORAPrinterUsbtabEnum(&names, &count));
    EXPECT_EQ((std::vector<std::string>{"lp3", "lp2", "lp0"}), std::vector<std::string>(names, names + count))
        << "printers only, in usbtab order";
    free(names);

    PQLIBSZLIST list = QLIBCSzListAlloc(4);
    QLIBCSzListPush(&list, "old");  // the caller's old list is freed and replaced
    ASSERT_EQ(3, QORAPrinterEnumCount(3, &list));
    EXPECT_EQ((std::vector<std::string>{"04a9:1827:A1B2C3", "03f0:002a:XZ9", "192.168.1.20-Office"}), items(list));
    ASSERT_EQ(1, QORAPrinterEnumCount(2, &list));
    EXPECT_EQ(std::vector<std::string>{"192.168.1.20-Office"}, items(list));
    ASSERT_EQ(0, QORAPrinterEnumCount(0, &list));
    EXPECT_EQ(2, QORAPrinterEnumCount(1, nullptr));
    // The ID enumeration appends to what the caller's list holds.
    ASSERT_EQ(0, QORAPrinterProcUsbtabIdEnum(&list));
    ASSERT_EQ(0, QORAPrinterProcUsbtabIdEnum(&list));
    EXPECT_EQ(4, list->nItem);

    qpt::write_file("/usr/qora/etc/nptab", "192.168.1.20=\"Q\"\n# comment\n");
    PQLIBSZLIST before = list;
    qpt::LogCapture log;
    EXPECT_EQ(-1, QORAPrinterEnumCount(3, &list));
    EXPECT_EQ(before, list);
    EXPECT_EQ(4, list->nItem);
    EXPECT_EQ(1u, log.count(LOG_ERR, "enum network printer id failed[0x")) << log.dump();
    QLIBCSzListFree(list);

    names = nullptr;  // a missing usbtab is an empty one
    qpt::remove_file("/tmp/usbtab");
    ASSERT_EQ(0, QORAPrinterUsbtabEnum(&names, &count));
    EXPECT_EQ(0, count);
    free(names);
    EXPECT_EQ(-1, QORAPrinterUsbtabEnum(&names, nullptr));
    EXPECT_EQ(ERR_BAD_PARAMETER, QLIBCErrGet());
}

}  // namespace
