#!/usr/bin/python3
"""Carries the option word of the .proto files into protobuf-c's descriptors.

The stock generator drops custom field options and would demand C code for
descriptor.proto, so the work is done in two steps around it:

  option_word.py strip IN.ds OUT.ds    removes the option from a descriptor set
  option_word.py patch IN.ds FILE...   writes the words into generated .pb-c.c
                                       files, as their reserved_flags member

Any mismatch between a descriptor set and the generated text is fatal: a build
without its keys would load and then match nothing.
"""
import re
import sys

from google.protobuf import descriptor_pb2

OPTION_FILE = "vvlan_option.proto"
OPTION_NAME = "option_word"
DROPPED_FILES = {OPTION_FILE, "google/protobuf/descriptor.proto"}


def read_set(path):
    with open(path, "rb") as f:
        return descriptor_pb2.FileDescriptorSet.FromString(f.read())


def option_number(files):
    for file in files.file:
        if file.name == OPTION_FILE:
            for ext in file.extension:
                if ext.name == OPTION_NAME:
                    return ext.number
    sys.exit(f"option_word.py: {OPTION_FILE} does not declare {OPTION_NAME}")


def word_of(field, number):
    return sum(u.data for u in field.options.UnknownFields() if u.field_number == number)


def strip(source, target):
    kept = descriptor_pb2.FileDescriptorSet()
    for file in read_set(source).file:
        if file.name in DROPPED_FILES:
            continue
        deps = [d for d in file.dependency if d not in DROPPED_FILES]
        del file.dependency[:]
        file.dependency.extend(deps)
        for message in file.message_type:
            for field in message.field:
                field.ClearField("options")
        kept.file.append(file)
    with open(target, "wb") as f:
        f.write(kept.SerializeToString())


def patch_field(text, path, array, field, word):
    # Within the message's descriptor array: the member's name, and after it
    # the first line that initialises flags and the reserved members.
    pattern = re.compile(
        r"(%s\[\d+\] =\n\{\n(?:.*\n)*?  \{\n    \"%s\",\n(?:.*\n)*?)    0,NULL,NULL    /\* reserved1,"
        % (re.escape(array), re.escape(field)))
    text, count = pattern.subn(r"\g<1>    %d,NULL,NULL    /* reserved1," % word, text, count=1)
    if count != 1:
        sys.exit(f"option_word.py: {path}: no descriptor of {array}.{field}")
    return text


def patch(source, paths):
    files = read_set(source)
    number = option_number(files)
    for path in paths:
        with open(path, encoding="utf-8") as f:
            text = f.read()
        package = re.sub(r".*/|\.pb-c\.c$", "", path)
        file = next(f for f in files.file if f.name == package + ".proto")
        for message in file.message_type:
            array = f"{file.package}__{message.name}__field_descriptors"
            for field in message.field:
                word = word_of(field, number)
                if word:
                    text = patch_field(text, path, array, field.name, word)
        with open(path, "w", encoding="utf-8") as f:
            f.write(text)


def main(argv):
    if len(argv) == 4 and argv[1] == "strip":
        strip(argv[2], argv[3])
    elif len(argv) >= 4 and argv[1] == "patch":
        patch(argv[2], argv[3:])
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main(sys.argv)
