# Brings up the disk as the flash partition "aboot": /dev/mtdblock0, erase blocks of 128 KiB.
load ata_piix block2mtd
until [ -b /dev/sda ]; do sleep 0.1; done
echo "/dev/sda,131072,aboot" >/sys/module/block2mtd/parameters/block2mtd
until [ -b /dev/mtdblock0 ]; do sleep 0.1; done
