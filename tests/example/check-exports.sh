#!/usr/bin/env bash
# check-exports.sh LIBRARY
# The shared library exports its public classes and free functions and
# nothing else: every dynamic symbol it defines must belong to one of them.
set -euo pipefail
library=$1
classes='ConfigurationManager|IAudioCapture|AudioCapManager|AudioCapturer|AudioDeviceEnumerator|IDeskCapture|IDeskDuplManager|DeskCaptureOption|DeskDuplManager|DXGICapturer|HardwareInfo|FeedbackManager|NetRCManager'
functions='compareVersion|convertDateMacro|win32ErrorMsg'
allowed="^((vtable|typeinfo|typeinfo name|VTT|construction vtable) for )?(($classes)(::|$| |\*|&)|($functions)\()"

# Out-of-line copies of third-party inline code (unoptimised builds emit
# some) and the linker's own markers are not part of the API question.
third_party='^((typeinfo|typeinfo name|vtable) for )?((void|bool|int|unsigned|long|char) )*(std::|__gnu_cxx::|cv::|Q[A-Za-z0-9_]*(::|<| |$))'
markers='^(_edata|_end|__bss_start|_init|_fini|__odr_asan\..*)$'

symbols=$(nm -D --defined-only -C "$library" | cut -d' ' -f3-)
unexpected=$(grep -Ev "$allowed" <<<"$symbols" | grep -Ev "$third_party" | grep -Ev "$markers" || true)
if [[ -n $unexpected ]]; then
    echo "symbols exported beyond the public API:"
    echo "$unexpected"
    exit 1
fi
for required in 'ConfigurationManager::instance()' 'compareVersion(QString, QString)' \
                'convertDateMacro(QString const&)' 'win32ErrorMsg(long)' 'ConfigurationManager::staticMetaObject'; do
    if ! grep -qxF "$required" <<<"$symbols"; then
        echo "missing export: $required"
        exit 1
    fi
done
echo "$(wc -l <<<"$symbols") exported symbols, all public"
