#!/bin/sh
# Turns a fresh root (the first argument) into a machine's disk, kernel and initial file system (in the
# second). Runs as root of the machine or of a user namespace, after the packages are in.
set -eu
root=$1 out=$2

echo machine >"$root/etc/hostname"
printf '127.0.0.1 localhost machine\n::1 localhost\n' >"$root/etc/hosts"
echo '/dev/vda / ext4 defaults,noatime 0 1' >"$root/etc/fstab"
chroot "$root" useradd --create-home --uid 1000 --shell /bin/bash person
chroot "$root" passwd --delete root >/dev/null
chroot "$root" systemctl set-default multi-user.target
chroot "$root" systemctl enable systemd-networkd systemd-resolved
# What a check starts when it needs it, and what only costs time under emulation.
for unit in NetworkManager NetworkManager-wait-online systemd-networkd-wait-online firewalld ufw strongswan \
    openvpn podman podman.socket podman-auto-update.timer podman-restart apt-daily.timer \
    apt-daily-upgrade.timer e2scrub_all.timer e2scrub_reap fstrim.timer dpkg-db-backup.timer man-db.timer; do
    chroot "$root" systemctl disable "$unit" 2>/dev/null || true
done

mkdir -p "$root/etc/systemd/network" "$root/etc/systemd/system/serial-getty@ttyS0.service.d"
# The machine's network card is the one that is not the router's.
cat >"$root/etc/systemd/network/50-uplink.network" <<EOF
[Match]
MACAddress=52:54:00:00:00:01
[Network]
DHCP=yes
EOF
cat >"$root/etc/systemd/system/serial-getty@ttyS0.service.d/autologin.conf" <<EOF
[Service]
ExecStart=
ExecStart=-/sbin/agetty --autologin root --keep-baud 115200 - \$TERM
EOF
cat >"$root/etc/systemd/system/machine-agent.service" <<EOF
[Unit]
Description=Commands from the host of this virtual machine
After=multi-user.target
[Service]
ExecStart=/bin/sh -c 'mkdir -p /run/lab && mount -t tmpfs -o mode=755 lab /run/lab && tar -x -f /dev/vdb -C /run/lab && exec python3 /run/lab/project/Lab/machines/guest/agent.py'
KillMode=process
OOMScoreAdjust=-900
[Install]
WantedBy=multi-user.target
EOF
chroot "$root" systemctl enable machine-agent
rm -rf "$root"/var/lib/apt/lists/* "$root"/var/cache/apt/*.bin
ln -sf /run/systemd/resolve/stub-resolv.conf "$root/etc/resolv.conf" || true

cp "$root"/boot/vmlinuz-* "$out/kernel"
cp "$root"/boot/initrd.img-* "$out/initrd"
chmod 644 "$out/kernel" "$out/initrd"
# Without the mounts that lie in the root while packages are put in.
bare=$(mktemp -d)
mount --bind "$root" "$bare"
/sbin/mke2fs -q -t ext4 -L machine -d "$bare" "$out/disk" 6G
umount "$bare"
rmdir "$bare"
