# The WS-Management part of scripts/stewardry-lab, which reads this file in: Debian's wsl, a console that
# others wrote, identifies, enumerates, gets and invokes through port 664.
# shellcheck shell=bash disable=SC2154  # its variables are the reader's

export WSENDPOINT=127.0.0.1:$port WSUSER=x WSPASS=x WSDONTASK=y IPINTERACTIVE=n OUTLEVEL=1
readonly answer=$STEWARDRY_LAB/answer
console() { # console COMMAND...: its answers are files in its working folder, which $answer collects
  local files folder=$STEWARDRY_LAB/wsl
  asked "$*"
  rm -rf "$folder" && mkdir "$folder"
  (cd "$folder" && HOME=$folder timeout 60 "$@" </dev/null >output.txt 2>&1)
  files=("$folder"/response-*)
  cat "${files[@]}" >"$answer" 2>/dev/null
  python3 -B "$here/show_wsman.py" "${files[@]}" 2>&1
}
says() { grep -qF -- "$1" "$answer"; }

printf '  the console finds the firmware by WSENDPOINT=%s\n' "$WSENDPOINT"
heading "1. Who are you?"
console wslid check
check "the firmware has answered for itself" says "ProductVendor>Corvane<"

heading "2. What do you know?"
console wslecn check
check "a class of the KVM profile is among them" says ">CIM_KVMRedirectionSAP<"

heading "3. What do you run on?"
console wslenum CIM_OperatingSystem
check "the version is this machine's" says ">$(uname -r)<"
console wslenum CIM_IPProtocolEndpoint
[ "$STEWARDRY_DEMO_PLACE" = host ] || check "the address is the adapter's" says ">$address<"

heading "4. One of them again, by its key"
console wslget CIM_SoftwareIdentity InstanceID=orrin:service
check "the service's version" says "VersionString>1.0.0.533<"

heading "5. Restart!"
console wslinvoke CIM_PowerManagementService RequestPowerStateChange PowerState=10
check "ReturnValue 0: done" says "ReturnValue>0<"
wait_for "$STEWARDRY_LAB/power.txt" InitiateSystemShutdownExA
check "the restart was asked for once, behind the answer, in the lab's power.txt" \
  test "$(grep -c 'reboot=true' "$STEWARDRY_LAB/power.txt")" -eq 1

heading "6. What is not there is a fault of the standard"
console wslget CIM_SoftwareIdentity InstanceID=nothing
check "the fault is wsa:DestinationUnreachable" says "wsa:DestinationUnreachable"

heading "In orrin's words"
grep -F "/wsman" "$trace" | cut -c1-150 | indent
say_verdict
