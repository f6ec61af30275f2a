# SPDX-License-Identifier: GPL-2.0
# The front door. Every target first installs what it needs of debian-packages.txt.
#
#   make module [KDIR=DIR]  zorvat.ko for the kernel whose build directory is DIR: the running one if
#                           its headers are installed, else the one of the tests
#   make userspace          zorvatctl and zorvat, in build/plain
#   make [all]              both
#   make install            both, to the system; for packages: DESTDIR=DIR
#
# For whoever works on it. Their virtual machine boots Debian's newest cloud kernel, whose packages
# these install; they build zorvat.ko for it.
#   make vm-modules         zorvat.ko for that kernel, for vm/run by hand
#   make test               all checks; closes with "N passed, N failed"
#   make demo               backups and a restore before your eyes, in a virtual machine
#   make bench              what tracking and restore disks cost
#   make lint               formatting and clang-tidy
#   make clean

# Expanded when used: the packages that bring them may have been installed just before.
running_kernel = $(shell ls -d /lib/modules/$$(uname -r)/build/ 2>/dev/null)
newest_cloud_kernel = $(lastword $(shell ls -dv /lib/modules/*-cloud-amd64/build/ 2>/dev/null))
# As vm/run boots it.
vm_kernel = $(patsubst /boot/vmlinuz-%,/lib/modules/%/build, \
	$(lastword $(shell ls -v /boot/vmlinuz-*-cloud-amd64 2>/dev/null)))
KDIR = $(or $(running_kernel),$(newest_cloud_kernel))

# Where optimisation shows nothing, it only costs time.
options_plain := -DCMAKE_BUILD_TYPE=RelWithDebInfo
options_asan := -DCMAKE_BUILD_TYPE=Debug -DSANITIZE=address,undefined
options_tsan := -DCMAKE_BUILD_TYPE=Debug -DSANITIZE=thread

.PHONY: all module vm-modules userspace install test demo bench lint clean
.PHONY: build-packages test-packages

# FOLDER, BUILD DIRECTORY
define build_module
@scripts/clean-module "$(2)" $(1)
@$(MAKE) --no-print-directory -C "$(2)" M=$(abspath $(1)) modules
endef

all: module userspace

build-packages:
	@scripts/install-packages build $(if $(KDIR),,headers)

test-packages:
	@scripts/install-packages build headers test

module: build-packages
	$(call build_module,.,$(KDIR))

# And overlay.ko, for the suite of that name.
vm-modules: test-packages
	$(call build_module,.,$(vm_kernel))
	$(call build_module,tests/vm/overlay,$(vm_kernel))

# What there is of build/plain keeps its settings.
userspace: build-packages
	@[ -f build/plain/CMakeCache.txt ] || \
		cmake -S . -B build/plain $(options_plain) -DBUILD_TESTING=OFF >/dev/null
	@cmake --build build/plain --parallel $(shell nproc) --target zorvatctl zorvat

install: module userspace
	@$(MAKE) --no-print-directory -C $(KDIR) M=$(CURDIR) INSTALL_MOD_PATH=$(DESTDIR) \
		$(if $(wildcard $(KDIR)/certs/signing_key.pem),,CONFIG_MODULE_SIG_ALL=) modules_install
	@$(if $(DESTDIR),,depmod $$(modinfo -F vermagic ./zorvat.ko | cut -d' ' -f1))
	@DESTDIR=$(DESTDIR) cmake --install build/plain

# build/plain, build/asan, build/tsan
build-%: test-packages
	@cmake -S . -B build/$* $(options_$*) -DBUILD_TESTING=ON >/dev/null
	@cmake --build build/$* --parallel $(shell nproc)

lint: build-plain
	@scripts/lint format tidy

test: vm-modules build-plain build-asan build-tsan
	@scripts/test

demo: vm-modules build-plain
	@vm/demo

bench: vm-modules build-plain
	@for benchmark in build/plain/bench/bench-*; do $$benchmark || exit; done
	@vm/run fio restore-disks large-volume

clean:
	@[ ! -d "$(KDIR)" ] || for folder in . tests/vm/overlay; do \
		$(MAKE) --no-print-directory -C $(KDIR) M=$(CURDIR)/$$folder clean; \
		rm -rf $$folder/generated; done
	rm -rf build
