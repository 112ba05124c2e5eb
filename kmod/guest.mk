# SPDX-License-Identifier: GPL-2.0
# The modules that tests/guest loads beside tarn.ko: the portable cases of tests/ukern, and a user of every export.

guest_dir := $(top)/tests/guest
# memfs_test.cc is about a file system that only the process build has.
case_sources := $(patsubst $(top)/%,%,$(filter-out %/memfs_test.cc,$(wildcard $(top)/tests/ukern/*.cc)) \
	$(guest_dir)/case_report.cc)
case_objects := $(addprefix $(out)/obj/,$(case_sources:.cc=.o) tests/guest/cases_module.o)

.PHONY: cases guest
guest: $(out)/tarn.ko $(out)/tarn_cases.ko $(out)/tarn_exports.ko
cases: $(case_objects)

# Debug configurations have large locks, and cases have them on the stack. The headers' atomic exchange looks at any
# word as a long, which the compiler remarks on for a word on the stack.
$(out)/obj/tests/%.o: $(top)/tests/%.cc bracket.h $(out)/spaced/asm/uaccess.h $(MAKEFILE_LIST)
	@mkdir -p $(dir $@)
	$(CXX) $(cxx_flags) -Wframe-larger-than=2048 -Wno-array-bounds -include bracket.h -MMD -c $< -o $@

$(out)/obj/tests/guest/%.o: $(guest_dir)/%.c $(out)/spaced/asm/uaccess.h $(MAKEFILE_LIST)
	@mkdir -p $(dir $@)
	$(CC) $(c_flags) -iquote $(top) -MMD -c $< -o $@

$(out)/tarn_cases.o: $(case_objects) $(guest_dir)/cases.lds $(guest_dir)/internal_symbols.py | layout
	ld -m elf_x86_64 -r --force-group-allocation -T $(guest_dir)/cases.lds -o $@.all $(case_objects)
	$(guest_dir)/internal_symbols.py $(KDIR) $@.all > $@.lds
	ld -m elf_x86_64 -r -o $@ $@.all $@.lds

$(out)/tarn_exports.o: $(addprefix $(out)/obj/tests/guest/,exports_module.o exports_use.o) | layout
	ld -m elf_x86_64 -r --force-group-allocation -o $@ $^

$(out)/tarn_exports.mod.c: modinfo_flags = --with $(out)/tarn.ko
$(out)/tarn_exports.mod.c: $(out)/tarn.ko
$(out)/tarn_cases.mod.o: modname = tarn_cases
$(out)/tarn_exports.mod.o: modname = tarn_exports

-include $(case_objects:.o=.d)
