#!/bin/bash
# ./run does nothing beside the installed service.   run_beside_service_test.sh RUN
set -euo pipefail

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cat >"$folder/systemctl" <<'END'
#!/bin/bash
[[ $* == "is-active --quiet korvane-pro.service" ]]
END
# Whatever comes after the refusal would be a build.
printf '#!/bin/bash\ntouch "%s/built"\nexit 1\n' "$folder" >"$folder/cmake"
chmod +x "$folder/systemctl" "$folder/cmake"

status=0
output=$(PATH=$folder:$PATH "$1" 2>&1) || status=$?
[[ $status == 1 ]] || { echo "status $status: $output"; exit 1; }
[[ $output == *"service korvane-pro is running"* ]] || { echo "said: $output"; exit 1; }
[[ ! -e $folder/built ]] || { echo "went on to build"; exit 1; }
