#!/usr/bin/env bash
# The main job: builds (installing what is missing), then tells OVSvc's story
# on a fresh embedded machine: installation and service start; three sessions
# of two users log on and get a server printer for each client printer (one a
# PostScript printer with its own PPD), usable only by its user; logoffs take
# them away, a job keeps one pending until the next release; the service is
# killed and restarted and a repair puts things right; at the end no
# autocreated printer is left. It stops with an error when a step does not
# leave the machine as expected.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)" >/dev/null
ctl="$PWD/build/default/bin/ovasctl"

export OVSVC_ROOT="${OVSVC_ROOT:-$(mktemp -d /tmp/ovsvc-demo-XXXXXX)}"
echo "== machine root: $OVSVC_ROOT"
key='HKLM\Software\Orvelle\Ovaspool'
"$ctl" reg set "$key" DebugLevel dword:000000ff
"$ctl" reg set "$key" DebugFile "$OVSVC_ROOT/trace.log"
"$ctl" reg set "$key" TimeOutService dword:000003e8
"$ctl" reg set "$key" RightsWin2000 dword:00000001   # users may print
"$ctl" reg set "$key" NameTranslationEx --type multi_sz \
  'IP,Client,Driver,Printer,Class,T1,T2,T4,T8,Template,Flag' \
  '*,*,HP*,*,*,true,true,true,true,HP Universal,' \
  '*,*,*,*,PS,true,true,true,true,OVPS!OVAS2:,'

echo; echo "== the product's installation: the PostScript template driver \"OV Relay Printer PS\""
"$ctl" setup
"$ctl" setup   # a second run changes nothing

echo; echo "== the product's port monitor and the template printer the PCL names point at"
"$ctl" spool port add 'Orvelle Port' OVAS1: --info 'Protocol=3\nOVASScheme=%A:%I#%N'
"$ctl" spool port add 'Orvelle Port' OVAS2: --info 'Protocol=3\nOVASScheme=%A:%I#%N'
"$ctl" spool template add 'HP Universal' --driver 'Generic / Text Only' --port OVAS1:
# Printers made from a template keep its ACL: only SYSTEM and Administrators.
# PostScript client printers ("OVPS!OVAS2:") get a driver generated from the PPD they send.
"$ctl" spool acl '_#HP Universal'
"$ctl" account add 'ORVELLE\alice'
"$ctl" account add 'ORVELLE\bob'

echo; echo "== a client call before the service runs (no service: -16)"
"$ctl" call repair || true

echo; echo "== service control"
"$ctl" service start
for _ in $(seq 200); do   # until the service answers requests
  "$ctl" call repair 2>/dev/null | grep -q 'result -16' || break
  sleep 0.05
done
"$ctl" service status

# Stops the demo when the machine is not in the state a step expects.
expect() {  # expect <what> <command...>: the command must succeed
  local what=$1; shift
  if ! "$@" >/dev/null 2>&1; then echo "demo: expected $what, but it is not so" >&2; exit 1; fi
}

echo; echo "== bob's client machine has a PostScript printer; its PPD travels packed"
cat > "$OVSVC_ROOT/office.ppd" <<'PPD'
*PPD-Adobe: "4.3"
*ModelName: "Office PS 3000"
*NickName: "Office PS 3000"
*LanguageLevel: "3"
*DefaultPageSize: A4
*PageSize A4/A4: "<</PageSize[595 842]>>setpagedevice"
PPD
"$ctl" ppd pack "$OVSVC_ROOT/office.ppd" -o "$OVSVC_ROOT/office.ovppd"

echo; echo "== three sessions of two users log on (alice twice, from the same PC); each session's"
echo "   client program (\"Ovaspool -q\") asks the service for its client printers"
"$ctl" session logon --id 2 --user 'ORVELLE\alice' --client ALICE-PC --address 10.0.0.21 \
  --printer 'name=HP LaserJet 4,class=PCL,driver=HP LaserJet 4,id=1'
"$ctl" session logon --id 3 --user 'ORVELLE\bob' --client BOB-PC --address 10.0.0.22 \
  --printer "name=Office PS,class=PS,driver=Generic PS,id=7,ppd=$OVSVC_ROOT/office.ovppd"
"$ctl" session logon --id 6 --user 'ORVELLE\alice' --client ALICE-PC --address 10.0.0.21 \
  --printer 'name=HP LaserJet 4,class=PCL,driver=HP LaserJet 4,id=1'
"$ctl" session list

echo; echo "== client calls answered by the service"
"$ctl" call version
"$ctl" call timeouts
"$ctl" call translate --printer 'HP LaserJet 4' --class PCL --ip 10.0.0.21 --client ALICE-PC \
  --driver 'HP LaserJet 4' --type 3
"$ctl" call translate --printer 'Office PS' --class PS --ip 10.0.0.22 --client BOB-PC \
  --driver 'Generic PS' --type 3
"$ctl" call reload
"$ctl" call repair || true

echo; echo "== the printers: marked as autocreated, listing their sessions (alice's serves both of hers),"
echo "   printable only by their user (besides SYSTEM and Administrators)"
"$ctl" spool printers
"$ctl" call enum
expect "alice's printer to list both her sessions" \
  sh -c "'$ctl' spool show 'ALICE-PC:1#HP LaserJet 4' | grep -q '2;6;'"
expect "alice's printer" "$ctl" spool show 'ALICE-PC:1#HP LaserJet 4'
expect "bob's printer" "$ctl" spool show 'BOB-PC:7#Office PS'
echo "-- bob's printer has a driver of its own, its data file the PPD his client sent:"
"$ctl" spool driver list | grep -E 'NAME|OV PS Driver'

echo; echo "== the automation object: a script deletes alice's printers and creates one again"
"$ctl" com register
"$ctl" com call OvaspoolLib.Ovaspool OVASDelPrinter 2 false
"$ctl" com call OvaspoolLib.Ovaspool OVASAddPrinter @name 10.0.0.21 1 0 -1
expect "alice's printer again" "$ctl" spool show 'ALICE-PC:1#HP LaserJet 4'

echo; echo "== only its user may print to a printer"
"$ctl" spool job add 'ALICE-PC:1#HP LaserJet 4' --as 'ORVELLE\alice'
if "$ctl" spool job add 'ALICE-PC:1#HP LaserJet 4' --as 'ORVELLE\bob'; then
  echo "demo: bob could print to alice's printer" >&2; exit 1
fi
"$ctl" spool job finish 'ALICE-PC:1#HP LaserJet 4'

echo; echo "== alice ends her first session: the logoff runs the client program's delete command;"
echo "   her printer stays for her second session"
"$ctl" session logoff --id 2
"$ctl" call enum
expect "alice's printer for her second session" \
  sh -c "'$ctl' spool show 'ALICE-PC:1#HP LaserJet 4' | grep -q 'Location: *6;\$'"
expect "bob's printer to stay" "$ctl" spool show 'BOB-PC:7#Office PS'

echo; echo "== bob prints and logs off: the job keeps his printer, pending, past his logoff;"
echo "   once the job is printed, the next release (alice's last logoff) removes it with hers"
"$ctl" spool job add 'BOB-PC:7#Office PS' --as 'ORVELLE\bob'
"$ctl" session logoff --id 3
expect "bob's printer to wait for its job" "$ctl" spool show 'BOB-PC:7#Office PS'
"$ctl" call enum
"$ctl" spool job finish 'BOB-PC:7#Office PS'
"$ctl" session logoff --id 6
"$ctl" spool printers
if "$ctl" spool show 'BOB-PC:7#Office PS' >/dev/null 2>&1; then
  echo "demo: bob's printer stayed after its job" >&2; exit 1
fi
if "$ctl" spool show 'ALICE-PC:1#HP LaserJet 4' >/dev/null 2>&1; then
  echo "demo: alice's printer outlived her sessions" >&2; exit 1
fi
if "$ctl" spool driver list | grep -q 'OV PS Driver'; then
  echo "demo: bob's generated driver outlived his printer" >&2; exit 1
fi

echo; echo "== both log on again; the service is killed (SIGKILL) and bob's session ends while none runs;"
echo "   the restarted service rebuilds its cache from the printers, and a repair drops bob's session"
echo "   and printer and restores the Location field and ACL of alice's"
"$ctl" session logon --id 4 --user 'ORVELLE\alice' --client ALICE-PC --address 10.0.0.21 \
  --printer 'name=HP LaserJet 4,class=PCL,driver=HP LaserJet 4,id=1'
"$ctl" session logon --id 5 --user 'ORVELLE\bob' --client BOB-PC --address 10.0.0.22 \
  --printer "name=Office PS,class=PS,driver=Generic PS,id=7,ppd=$OVSVC_ROOT/office.ovppd"
pkill -KILL -f "$PWD/build/default/bin/ovaspoolsvc" || true
"$ctl" session logoff --id 5 2>/dev/null || true   # its delete command finds no service
"$ctl" service start >/dev/null
for _ in $(seq 200); do   # until the new service answers
  "$ctl" call enum --raw 2>/dev/null | grep -q 'result -16' || break
  sleep 0.05
done
"$ctl" call enum
"$ctl" call repair
"$ctl" spool printers
expect "alice's printer for her new session" "$ctl" spool show 'ALICE-PC:1#HP LaserJet 4'
expect "alice's session back in her printer's Location" \
  sh -c "'$ctl' spool show 'ALICE-PC:1#HP LaserJet 4' | grep -q 'Location: *4;\$'"
expect "alice in her printer's ACL" sh -c "'$ctl' spool printers | grep ALICE-PC | grep -q 'alice:print'"
if "$ctl" spool show 'BOB-PC:7#Office PS' >/dev/null 2>&1; then
  echo "demo: the repair left the printer of a session that is gone" >&2; exit 1
fi

echo; echo "== alice logs off: no autocreated printer is left"
"$ctl" session logoff --id 4
"$ctl" call enum
if "$ctl" spool printers | grep -q 'Printer created by Ovaspool'; then
  echo "demo: an autocreated printer is left" >&2; exit 1
fi
if "$ctl" spool driver list | grep -q 'OV PS Driver'; then
  echo "demo: a generated PostScript driver is left" >&2; exit 1
fi

echo; echo "== stopping the service"
"$ctl" service stop
echo; echo "== the service's trace, its last lines"
grep -a '_SVC_' "$OVSVC_ROOT/trace.log" | tail -n 6
echo; echo "The whole trace: $OVSVC_ROOT/trace.log"
