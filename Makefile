# SPDX-License-Identifier: GPL-2.0
# The front door. Every target first installs what it needs of debian-packages.txt.
#
#   make [module] [KDIR=DIR]  zorvat.ko for the kernel whose build directory is DIR
#   make userspace            libzorvat, zorvatctl and zorvat, in build/plain
#   make test                 all checks; closes with "N passed, N failed"
#   make demo                 backups and a restore before your eyes, in a virtual machine
#   make bench                what tracking and restore disks cost
#   make lint                 formatting and clang-tidy
#   make clean

# Expanded when used: the packages that bring the kernel may have been installed just before.
stock_kernel = $(lastword $(shell ls -dv /lib/modules/*-cloud-amd64/build 2>/dev/null))
KDIR = $(or $(stock_kernel),/lib/modules/$(shell uname -r)/build)

# Where optimisation shows nothing, it only costs time.
options_plain := -DCMAKE_BUILD_TYPE=RelWithDebInfo
options_asan := -DCMAKE_BUILD_TYPE=Debug -DSANITIZE=address,undefined
options_tsan := -DCMAKE_BUILD_TYPE=Debug -DSANITIZE=thread

.PHONY: all module test-module userspace test demo bench lint clean packages
all: module userspace

packages:
	@scripts/install-packages

module: packages
	@$(MAKE) --no-print-directory -C $(KDIR) M=$(CURDIR) modules

# For the VM suite "overlay".
test-module: packages
	@$(MAKE) --no-print-directory -C $(KDIR) M=$(CURDIR)/tests/vm/overlay modules

# build/plain, build/asan, build/tsan
build-%: packages
	@cmake -S . -B build/$* $(options_$*) >/dev/null
	@cmake --build build/$* --parallel $(shell nproc)

userspace: build-plain

lint: build-plain
	@scripts/lint format tidy

test: module test-module build-plain build-asan build-tsan
	@scripts/test

demo: module build-plain
	@vm/demo

bench: module build-plain
	@for benchmark in build/plain/bench/bench-*; do $$benchmark || exit; done
	@vm/run fio restore-disks large-volume

clean:
	@[ ! -d $(KDIR) ] || for folder in . tests/vm/overlay; do \
		$(MAKE) --no-print-directory -C $(KDIR) M=$(CURDIR)/$$folder clean; done
	rm -rf build
