# The KVM part of scripts/stewardry-lab, which reads this file in: a viewer on port 22 sees the firmware's
# screen, types and drags, and KVM is disabled after the session.
# shellcheck shell=bash disable=SC2154  # its variables are the reader's

readonly kvm_port=22 agent=$STEWARDRY_LAB/agent.txt picture=$(dirname "$bin")/screen.png
readonly painted=$STEWARDRY_LAB/painted.ppm seen=$STEWARDRY_LAB/seen.ppm
readonly said=$STEWARDRY_LAB/viewer.txt

orrin_says() { # types commands at orrin's prompt, and shows them
  local command
  for command in "$@"; do
    printf '%s  orrin> %s%s\n' "$dim" "$command" "$plain"
    printf '%s\n' "$command" >&3
  done
}
enable_kvm() { # waits until the service has opened port 22 once more
  orrin_says "kvm on" "kvm trust 127.0.0.1 5900"
  wait_for "$log" "IP: 0x100007f & Port: 0x170c"
  wait_for "$log" "Bind to port $kvm_port successful"
}
wait_for_count() { # wait_for_count FILE TEXT COUNT: up to 30 s
  for _ in {1..300}; do
    [ "$(grep -csF -- "$2" "$1")" -ge "$3" ] && return
    sleep 0.1
  done
  give_up "waited in vain for $3 times: $2"
}
ended() { wait_for_count "$trace" "the KVM connection has ended" "$1"; }
answers() { # a connection that is taken and not just dropped
  timeout 5 bash -c "exec 4<>/dev/tcp/127.0.0.1/$kvm_port && head -c 3 <&4 | grep -q RFB"
}
not() { ! "$@"; }

heading "1. The firmware enables KVM"
check "before that, no program listens on port $kvm_port" \
  test -z "$(ss -Hltn "sport = :$kvm_port")"
enable_kvm
check "the service listens on port $kvm_port" test -n "$(ss -Hltn "sport = :$kvm_port")"

heading "2. What is on the screen? A snapshot by gvnccapture"
orrin_says "kvm paint 20261123"
# gvnccapture counts displays from port 5900.
asked "gvnccapture 127.0.0.1:$((kvm_port - 5900)) $picture"
rm -f "$picture"
gvnccapture -q "127.0.0.1:$((kvm_port - 5900))" "$picture" 2>&1 | indent
check "a PNG has come, $picture" test "$(head -c 4 "$picture" | tail -c 3)" = PNG
ended 1

heading "3. A viewer types and drags (vnc_viewer, over libvncclient)"
enable_kvm
wait_for_count "$log" "Setting KVM Enabled to true" 2
mkfifo "$STEWARDRY_LAB/viewer"
exec 5<>"$STEWARDRY_LAB/viewer"
"$bin/vnc_viewer" <&5 >"$said" 2>/dev/null 3>&- &
viewer=$!
watch() { # types commands at the viewer and waits until all of them are done
  local command
  for command in "$@"; do
    printf '%s  viewer> %s%s\n' "$dim" "$command" "$plain"
    printf '%s\n' "$command" >&5
    done=$((${done:-0} + 1))
  done
  wait_for_count "$said" "" "$done"
}
watch "connect 127.0.0.1 $kvm_port"
wait_for_count "$agent" " runs" 2
orrin_says "kvm save $painted"
wait_for "$trace" "the screen is in"
watch "save $seen"
check "pixel by pixel what orrin has painted" cmp "$seen" "$painted"
watch "type Grüß Gott, Tavrin 2!" "key 0xffe3 down" "key 0xffe9 down" "key 0xffff down" \
  "key 0xffff up" "key 0xffe9 up" "key 0xffe3 up" \
  "pointer 0 40 40" "pointer 1 40 40" "pointer 1 200 120" "pointer 0 200 120"
wait_for "$agent" "left-up"
wait_for "$agent" "key 0x11 scan 0x1D release"

heading "4. What the agent in the console's session has played"
# Keys and pointer use separate pipes, so only the order within each kind is fixed.
readonly keys=$STEWARDRY_LAB/keys.txt drag=$STEWARDRY_LAB/drag.txt
grep '^key' "$agent" >"$keys"
grep '^mouse' "$agent" >"$drag"
pr -3 -a -t -w 114 "$keys" | expand | indent
indent <"$drag"
played() { grep -qF -- "$1" "$agent"; }
in_order() { # in_order FILE PATTERN...: some run of lines matches these
  local file=$1 lines
  shift
  lines=$(printf '%s\n' "$@")
  tr '\n' '|' <"$file" | grep -qE -- "${lines//$'\n'/[|]}"
}
check "a capital letter has Shift around it" played "key 0x10 scan 0x2A press"
check "a letter that the US layout lacks is entered on the keypad (Alt+0252)" \
  in_order "$keys" 'key 0x12 scan 0x38 press' 'key 0x60 [^|]*press' 'key 0x60 [^|]*release' \
  'key 0x62 [^|]*press' 'key 0x62 [^|]*release' 'key 0x65 [^|]*press' 'key 0x65 [^|]*release' \
  'key 0x62 [^|]*press' 'key 0x62 [^|]*release' 'key 0x12 scan 0x38 release'
check "Ctrl+Alt+Del" \
  in_order "$keys" 'key 0x11 [^|]*press' 'key 0x12 [^|]*press' 'key 0x2E scan 0x53 extended press'
check "the drag: button down, moved, up" \
  in_order "$drag" 'left-down' 'mouse [^|]* move' 'mouse [^|]* left-up'

heading "5. The firmware ends the session and disables KVM"
orrin_says "kvm close"
ended 2
exec 5>&-
kill "$viewer" 2>/dev/null
wait "$viewer" 2>/dev/null
viewer=''
check "the agent was ordered to exit" played "ordered to exit"
check "a viewer that comes now is dropped" not answers
check "every viewer's command was done" not grep -q failed "$said"

show_inside '(WriteKVMPacket|KVM_DATA|KVM: (key|pointer))' '(read size|Exiting KVM Callback|Send index)'
say_verdict
