# shellcheck shell=bash
# Emulation of 32-bit ARM programs. Sourced.

# Registers the emulator in the kernel, for programs in any root, until the calling script ends. Returns 1 if the kernel does not
# permit it.
emulate_arm() {
    local handlers=/proc/sys/fs/binfmt_misc name=kestcrond-arm-$$
    [[ -e $handlers/register ]] || mount -t binfmt_misc none "$handlers" 2>/dev/null || return 1
    local header='\x7fELF\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x28\x00'
    local mask='\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff'
    echo ":$name:M::$header:$mask:$(command -v qemu-arm-static):PF" >"$handlers/register" || return 1
    # shellcheck disable=SC2064 # as it is now
    trap "echo -1 >'$handlers/$name'" EXIT
}
