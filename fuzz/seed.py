#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets from the real captures.

usage: seed.py CAPTURES_DIR OUT_DIR
"""
import os
import re
import sys

captures, out = sys.argv[1], sys.argv[2]


def read(path, mode='rb'):
    with open(os.path.join(captures, path), mode) as f:
        return f.read()


def put(target, name, data):
    d = os.path.join(out, target)
    os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, name), 'wb') as f:
        f.write(data if isinstance(data, bytes) else data.encode('latin-1'))


def lines(path):
    return read(path).decode('latin-1').splitlines()


def escaped(text):
    # FuzzedDataProvider.ConsumeRandomLengthString: "\\\\" is one backslash,
    # a backslash before anything else ends the string.
    return text.replace('\\', '\\\\') + '\\x'


for machine in ('lab-server', 'virtio-vm'):
    n, m, v = (read(f'{machine}/lspci-{p}.txt').decode('latin-1') for p in 'nmv')
    for i, line in enumerate(n.splitlines()):
        put('parse_n_fuzz', f'{machine}-{i}', line)
        put('extract_bus_dev_fn_fuzz', f'{machine}-{i}', line.split(' ')[0])
        for j, word in enumerate(line.replace(':', ' ').split()[1:]):
            put('from_hex_fuzz', f'{machine}-{i}-{j}', word)
    for i, line in enumerate(m.splitlines()):
        put('parse_m_fuzz', f'{machine}-{i}', line)
    for i, line in enumerate(v.splitlines()):
        if 'Bus: ' in line:
            put('parse_bus_details_fuzz', f'{machine}-{i}', line)
        if 'IRQ' in line:
            put('parse_irq_fuzz', f'{machine}-{i}', line)
        if 'I/O ports at' in line:
            put('parse_io_ports_fuzz', f'{machine}-{i}', line)
    put('inventory_fuzz', machine, escaped(n) + escaped(m) + v)

put('parse_n_fuzz', 'old-shape', '00:02.0 Class 0300: 8086:2572 (rev 02)')
put('parse_n_fuzz', 'domain', '0000:00:1f.2 Class 0101: 8086:27c0 (rev 01)')
put('extract_bus_dev_fn_fuzz', 'domain', '0000:0a:03.1')
put('inventory_fuzz', 'pcilib', escaped('pcilib: x\n00:00.0 0600: 8086:1237\n') +
    escaped('pcilib: x\n00:00.0 "Host bridge" "V" "D"\n') + 'pcilib: x\nheader\n\tFlags: IRQ 5\n')
put('inventory_fuzz', 'missing', escaped('sh: /sbin/lspci: command not found\n') * 2)

area = read('lab-server/f-segment.bin')
put('pir_fuzz', 'lab-server', bytes([0, 2]) + area)
put('pir_fuzz', 'lab-server-table', bytes([1, 6]) + area[0x5C80:0x5C80 + 128])

# The modem target's layout (FuzzedDataProvider): the reply pieces as escaped
# strings from the front, the number of pieces of each command as one byte
# each from the back, the first command's last.
def modem_seed(replies):
    front = ''.join(escaped(piece) for pieces in replies for piece in pieces)
    return front.encode('latin-1') + bytes(len(pieces) for pieces in reversed(replies))


put('modem_reply_fuzz', 'lab-server', modem_seed([
    ['ATZ\r\r\nOK\r\n'], ['AT&K3\r\r\nOK\r\n'], ['ATQ0E0V1&C1&D2\r\r\nOK\r\n'],
    ['\r\nLabModem 56K V.92 External\r\n', '\r\nOK\r\n']]))
put('modem_reply_fuzz', 'silent', modem_seed([[], [], [], []]))
put('modem_reply_fuzz', 'error', modem_seed([['OK'], [], [], ['\r\nERROR\r\n']]))
put('modem_reply_fuzz', 'flood', modem_seed([['x' * 300] * 4, [], [], ['y' * 99 + 'OK']]))

smbios = []
for d in sorted(os.listdir(os.path.join(captures, 'smbios'))):
    smbios.append((d, read(f'smbios/{d}/dump.bin')))
# The dumps' layout: the entry point padded to 0x20 bytes, the table behind.
smbios.append(('lab-server', read('lab-server/smbios_entry_point.bin').ljust(0x20, b'\0') + read('lab-server/DMI.bin')))
for name, data in smbios:
    put('smbios_fuzz', name, data)
    # Byte 0x1F, behind every entry point, picks the route: 1 is /dev/mem
    # (entry point at 0xF0100), 2 both sysfs and /dev/mem, 3 neither.
    for route in (1, 2, 3):
        put('smbios_fuzz', f'{name}-route{route}', data[:0x1F] + bytes([route]) + data[0x20:])

# USB: the configurations and hub descriptors of the lab server's devices.
usbfs = os.path.join(captures, 'lab-server/usbfs')
for name in sorted(os.listdir(usbfs)):
    if not name.endswith('.usb'):
        continue
    config, hub = b'', b''
    for line in lines(f'lab-server/usbfs/{name}'):
        words = line.split()
        if words and words[0] in ('config', 'hub'):
            data = bytes(int(w, 16) for w in words[1:])
            if words[0] == 'config':
                config += data
            else:
                hub = data
    put('usb_descriptors_fuzz', name, config)
    if hub:
        put('usb_descriptors_fuzz', name + '-hub', hub)
put('usb_descriptors_fuzz', 'negative-length', bytes([9, 2, 0x80, 0, 1, 1, 0, 0x80, 50]) + bytes(119))
put('usb_attribute_fuzz', 'present', escaped('Product') + 'Vendor5|LABCOProduct10|USB CD-ROMSerial0|')
put('usb_attribute_fuzz', 'missing', escaped('k') + '3|abcdef')
put('usb_attribute_fuzz', 'behind', escaped('abc'))
put('usb_location_fuzz', 'one-hub', escaped('002') + 'USB 1, Root Hub 1, Port 4, Device 002, Port 2')
put('usb_location_fuzz', 'root-port', escaped('000') + 'USB 2, Root Hub 2, Port 12')
put('usb_location_fuzz', 'one-comma', escaped('000') + 'USB 1, Port 4, Device 002')
put('usb_location_fuzz', 'no-port', escaped('000') + 'USB 1, Root Hub 1, ')

# The lsusb target reads the whole input as "lsusb -v" text.
for name in sorted(os.listdir(os.path.join(captures, 'lsusb'))):
    put('lsusb_fuzz', name.rsplit('.', 1)[0], read(f'lsusb/{name}'))
put('lsusb_fuzz', 'lab-server', read('lab-server/lsusb-v.txt'))
put('lsusb_fuzz', 'quirks',
    'Bus 001 Device 003: ID 0781:5567 SanDisk Corp. Cruzer\n'
    '  bcdUSB  12\x01tail\n  iSerial  3 AB\x05CD\x02EF\n  idVendor  0x0000 Self Powered\n'
    '    MaxPower  100\n  iProduct  2 RDX\n      bInterfaceClass 99999999999999999999\n'
    + '  iSerial 3 ' + 'A' * 300 + '\n'
    'Bus 001 Device 003: ID 0930:6545 same path\n'
    '      (Bus Powered) Bus 005 Device 007:\n'
    'Bus 001 Device 001: ID 1d6b:0002\n'
    'Bus 001 Device 004: ID 04b3:4010 \n'
    'Bus 001 Device 005: ID 04b3:4010\n')
put('lsusb_fuzz', 'missing', 'Bus 001 Device 002: ID 8087:0024 Hub\nsh: lsusb: command not found\n')

# The sysfs attribute target's layout: the name and the SCSI id as escaped
# strings, the value, two bytes of len and a flags byte last (1: no value,
# 2: len as libsysfs sets it).
for i, line in enumerate(lines('lab-server/sysfs-scsi.txt')):
    m = re.match(r'(\S+) type=(\d+) vendor=\[(.*?)\] model=\[(.*?)\] rev=\[(.*?)\]', line)
    if not m:
        continue
    for name, value in (('type', m.group(2)), ('vendor', m.group(3)), ('model', m.group(4)), ('rev', m.group(5))):
        put('sysfs_attribute_fuzz', f'lab-server-{i}-{name}',
            escaped(name) + escaped(m.group(1)) + value + '\n' + '\0\0' + '\x02')
put('sysfs_attribute_fuzz', 'no-line-feed', escaped('value') + escaped('0:0:1') + 'abcd' + '\x00\x04' + '\x00')
put('sysfs_attribute_fuzz', 'no-value', escaped('remove') + escaped('1:2:3:4:5') + '\0\0' + '\x01')
put('sysfs_attribute_fuzz', 'inner-zero', escaped('inquiry') + escaped('1:2:3:') + 'ab\0cd\n' + '\0\0' + '\x02')
# SCSI. The sense target's layout: status, sb_len_wr, the number n of sense
# bytes, the n sense bytes, then the data of the reply.
def fixed_sense(key, code, qualifier=0):
    return bytes([0x70, 0, key, 0, 0, 0, 0, 10, 0, 0, 0, 0, code, qualifier, 0, 0, 0, 0])


def descriptor_sense(key, code, qualifier=0):
    return bytes([0x72, key, code, qualifier, 0, 0, 0, 0])


def sense_seed(status, written, sense, data=b''):
    return bytes([status, written, len(sense)]) + sense + data


put('scsi_sense_fuzz', 'good-2880-blocks', sense_seed(0, 0, b'', bytes([0, 0, 0x0B, 0x3F, 0, 0, 2, 0])))
put('scsi_sense_fuzz', 'no-medium', sense_seed(2, 18, fixed_sense(2, 0x3A)))
put('scsi_sense_fuzz', 'medium-changed', sense_seed(2, 18, fixed_sense(6, 0x28)))
put('scsi_sense_fuzz', 'incompatible', sense_seed(2, 18, fixed_sense(3, 0x30)))
put('scsi_sense_fuzz', 'illegal-request-descriptor', sense_seed(2, 8, descriptor_sense(5, 0x24)))
put('scsi_sense_fuzz', 'twelve-bytes', sense_seed(2, 12, fixed_sense(2, 0x3A)))

# The INQUIRY data and host adapter texts of the lab server's sg nodes.
for line in lines('lab-server/ioctls.txt'):
    m = re.match(r'/dev/(sg\d+): SG_IO INQUIRY type=(\d+) rmb=(\d) vendor="(.*)" product="(.*)" rev="(.*)"', line)
    if m:
        node, kind, rmb, vendor, product, rev = m.groups()
        data = bytes([int(kind), 0x80 if rmb == '1' else 0, 5, 2, 31, 0, 0, 0])
        data += vendor.ljust(8)[:8].encode() + product.ljust(16)[:16].encode() + rev.ljust(4)[:4].encode()
        put('scsi_inquiry_fuzz', f'lab-server-{node}', data)
    m = re.match(r'/dev/(sg\d+): SCSI_IOCTL_PROBE_HOST ret=1 "(.*)"', line)
    if m:
        put('scsi_inquiry_fuzz', f'lab-server-{m.group(1)}-host', m.group(2))
put('scsi_inquiry_fuzz', 'usb-host', 'SCSI emulation for USB Mass Storage devices')
put('scsi_inquiry_fuzz', 'ide-host', 'ide-scsi IDE emulation')

# The hub port table's text route: a root hub's line, then the lines of its ports.
topology = [l for l in lines('lab-server/usb-devices-debugfs.txt') if l.startswith('T:')]
for i, line in enumerate(topology):
    put('usb_devices_route_fuzz', f'lab-server-{i}', b'\x01' + escaped(line + '\n').encode('latin-1')
        + (topology[(i + 1) % len(topology)] + '\n').encode('latin-1'))

# A USB device's sysfs attributes: key choices and values as the lab server's
# devices have them.
for i, line in enumerate(l for l in lines('lab-server/sysfs-usb.txt') if not l.startswith(' ')):
    put('usb_sysfs_attributes_fuzz', f'lab-server-{i}', escaped(line))

# IDE identity blocks: the lab server's CD-ROM drive as HDIO_GET_IDENTITY
# gave it (the words the capture does not show are zero), and variants whose
# texts fill their fields or have no zero byte at all.
def identity(word0, serial, fw, model):
    block = bytearray(512)
    block[0:2] = word0.to_bytes(2, 'little')
    block[20:40] = serial.ljust(20)[:20].encode('latin-1')
    block[46:54] = fw.ljust(8)[:8].encode('latin-1')
    block[54:94] = model.ljust(40)[:40].encode('latin-1')
    return bytes(block)


for line in lines('lab-server/ioctls.txt'):
    m = re.match(r'/dev/(\w+): HDIO_GET_IDENTITY word0=0x([0-9a-f]+) \(ATAPI=1\) model="(.*)" serial="(.*)" fw="(.*)"',
                 line)
    if m:
        node, word0, model, serial, fw = m.groups()
        block = identity(int(word0, 16), serial, fw, model)
        put('ide_identity_fuzz', f'lab-server-{node}', block)
        put('ide_identity_fuzz', f'lab-server-{node}-buffer-type', block[:40] + bytes([3, 0, 0, 2, 4, 0]) + block[46:])
put('ide_identity_fuzz', 'no-zero-byte', b'\xff' * 512)
put('ide_identity_fuzz', 'virtual', identity(0x85c0, 'VS0001', '1.0', 'IPMI VIRTUALCDROM'))
put('ide_identity_fuzz', 'fixed-disk', identity(0x0040, 'QM00001', '2.5+', 'QEMU HARDDISK'))

# Machine files: the samples' own, and the lines that recordings write.
for sample in ('lab-server', 'ide-server', 'virtio-vm', 'lab-server-recorded'):
    path = os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', 'samples', sample, 'machine')
    if os.path.exists(path):
        put('machine_text_fuzz', sample, read(path))
put('machine_text_fuzz', 'recording-lines', (
    b'size a.txt 34\nrun a.txt /sbin/lspci -n 2>&1\n'
    b'sg /dev/sg0 host=1 channel=0 id=0 lun=0 type=5 emulated=1 cmd-per-lun=1 queue-depth=1\n'
    b'sg-reply /dev/sg0 inquiry status 02 data=0102 sense=700002\n'
    b'scsi-block /dev/sr0 host=1 channel=0 id=0 lun=0 unique-id=2 identity=id.bin\n'
    b'ide-packet /dev/sr0 mode-sense status 02 sense=70000500\n'
    b'refuse-ioctl /dev/sr0 HDIO_GET_IDENTITY EINVAL\nrefuse-ioctl /dev/x 0x5401 95\n'
    b'usbfs /dev/bus/usb/001/001 dev.usb\nserial /dev/ttyS0 type=4 port=0x3f8 irq=4 modem=modem.txt\n'
    b'deny /dev/mem EACCES\nsysfs sys\n'))
