// A plain libusb program, unaware of any simulation: counts the 0471:1200 adapters, asks each
// one for its serial number, and exits with the number of adapters found (or 100 + a failure).
#include <libusb.h>

#include <cstdio>
#include <string>

int main() {
    if (libusb_init(nullptr) != 0) return 101;
    libusb_device** list = nullptr;
    ssize_t n = libusb_get_device_list(nullptr, &list);
    int found = 0;
    for (ssize_t i = 0; i < n; ++i) {
        libusb_device_descriptor d;
        if (libusb_get_device_descriptor(list[i], &d) != 0 || d.idVendor != 0x0471 || d.idProduct != 0x1200)
            continue;
        libusb_device_handle* h = nullptr;
        if (libusb_open(list[i], &h) != 0 || libusb_claim_interface(h, 0) != 0) return 102;
        unsigned char cmd[4] = {0x12, 0x14, 0x01, 0x00}, ack[64];
        int len = 0;
        if (libusb_bulk_transfer(h, 0x01, cmd, 4, &len, 1000) != 0) return 103;
        if (libusb_bulk_transfer(h, 0x81, ack, 64, &len, 1000) != 0 || len < 4) return 104;
        std::printf("adapter %d serial %s\n", found,
                    std::string(reinterpret_cast<char*>(ack) + 4, static_cast<size_t>(len - 4)).c_str());
        libusb_release_interface(h, 0);
        libusb_close(h);
        ++found;
    }
    libusb_free_device_list(list, 1);
    libusb_exit(nullptr);
    return found;
}
