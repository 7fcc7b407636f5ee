# fish completion for vantryctl

function __vantryctl_is
    # Whether the words before the cursor, options left out, begin with these.
    set -l words (commandline -opc | string match -v -- '-*')
    set -e words[1]
    test (count $words) -ge (count $argv); or return 1
    test -z "$argv"; and return (test -z "$words"; echo $status)
    test "$words[1..$(count $argv)]" = "$argv"
end

function __vantryctl_is_just
    set -l words (commandline -opc | string match -v -- '-*')
    set -e words[1]
    test "$words" = "$argv"
end

complete -c vantryctl -f
complete -c vantryctl -n '__vantryctl_is_just' -l version -d 'Print the version'
complete -c vantryctl -l help -d 'Print help'

complete -c vantryctl -n '__vantryctl_is_just' -a rules -d 'Show or change what each application may do'
complete -c vantryctl -n '__vantryctl_is_just' -a vpn -d 'Say whether the VPN is up'
complete -c vantryctl -n '__vantryctl_is_just' -a run -d 'Run a command under a rule of its own'
complete -c vantryctl -n '__vantryctl_is run' -l direct -l vpn -l block
complete -c vantryctl -n '__vantryctl_is_just' -a status -d 'Show whether the daemon runs'
complete -c vantryctl -n '__vantryctl_is_just' -a reload -d 'Have the daemon read the rules'
complete -c vantryctl -n '__vantryctl_is_just' -a apps -d 'List the applications that were seen'
complete -c vantryctl -n '__vantryctl_is_just' -a identify -d 'Find the identifier of a process or a program'
complete -c vantryctl -n '__vantryctl_is_just' -a why -d 'Say what becomes of a new flow now, and why'
complete -c vantryctl -n '__vantryctl_is_just' -a top -d 'Watch which application sends how much, and which way'
complete -c vantryctl -n '__vantryctl_is_just' -a sessions -d 'List the direct connections'
complete -c vantryctl -n '__vantryctl_is_just' -a log -d 'Show which flows went where'
complete -c vantryctl -n '__vantryctl_is_just' -a clear -d 'Empty the log'
complete -c vantryctl -n '__vantryctl_is_just' -a failures -d 'List direct connections that found no interface'
complete -c vantryctl -n '__vantryctl_is_just' -a check -d 'Say what the machine lacks'
complete -c vantryctl -n '__vantryctl_is_just' -a setup -d 'Be led through the first settings'
complete -c vantryctl -n '__vantryctl_is_just' -a record -d 'Write down what the daemon is asked and decides'
complete -c vantryctl -n '__vantryctl_is record' -l for -x -d 'How long'
complete -c vantryctl -n '__vantryctl_is record' -l most -x -d 'How many MiB at most'
complete -c vantryctl -n '__vantryctl_is record' -l verbatim -d 'With names and addresses'
complete -c vantryctl -n '__vantryctl_is_just' -a report -d 'Print all that somebody who helps needs to know'
complete -c vantryctl -n '__vantryctl_is_just' -a verify -d 'See whether each flow leaves the way that its rule says'
complete -c vantryctl -n '__vantryctl_is verify' -l for -x -d 'How long to look'
complete -c vantryctl -n '__vantryctl_is verify' -l to -x -d 'Where its own flows go'
complete -c vantryctl -n '__vantryctl_is verify' -l only-look -d 'Make no flows'
complete -c vantryctl -n '__vantryctl_is_just' -a try -d 'Make a change that is taken back unless confirmed'
complete -c vantryctl -n '__vantryctl_is_just' -a confirm -d 'Keep the change that is on trial'
complete -c vantryctl -n '__vantryctl_is_just' -a off -d 'Have traffic go as if there were no rules'
complete -c vantryctl -n '__vantryctl_is_just' -a on -d 'Have the rules hold again'
complete -c vantryctl -n '__vantryctl_is_just' -a undo -d 'Take the newest change back'
complete -c vantryctl -n '__vantryctl_is_just' -a export -d 'Print the settings as a document'
complete -c vantryctl -n '__vantryctl_is_just' -a import -d 'Replace the settings by those of a document'

complete -c vantryctl -n '__vantryctl_is_just rules' -a 'show set remove default block unblock datagrams fallback'
complete -c vantryctl -n '__vantryctl_is rules set' -a '(vantryctl names seen 2>/dev/null)'
complete -c vantryctl -n '__vantryctl_is rules set; and not __vantryctl_is_just rules set' -a 'vpn direct'
complete -c vantryctl -n '__vantryctl_is rules block' -a '(vantryctl names seen 2>/dev/null)'
complete -c vantryctl -n '__vantryctl_is rules remove' -a '(vantryctl names ruled 2>/dev/null)'
complete -c vantryctl -n '__vantryctl_is rules unblock' -a '(vantryctl names blocked 2>/dev/null)'
complete -c vantryctl -n '__vantryctl_is_just rules default' -a 'vpn direct'
complete -c vantryctl -n '__vantryctl_is_just rules datagrams' -a direct
complete -c vantryctl -n '__vantryctl_is rules datagrams; and not __vantryctl_is_just rules datagrams' -a 'on off'
complete -c vantryctl -n '__vantryctl_is_just rules fallback' -a 'vpn direct'
complete -c vantryctl -n '__vantryctl_is rules fallback; and not __vantryctl_is_just rules fallback' -a 'allow block'
complete -c vantryctl -n '__vantryctl_is_just vpn' -a 'follow up down'
complete -c vantryctl -n '__vantryctl_is identify' -F
complete -c vantryctl -n '__vantryctl_is why' -F -a '(vantryctl names seen 2>/dev/null)'
complete -c vantryctl -n '__vantryctl_is why' -l last -d 'The newest flow of the log'
complete -c vantryctl -n '__vantryctl_is why' -s u -l udp -d 'A datagram'

complete -c vantryctl -n '__vantryctl_is top' -s 1 -l once -d 'A table of one second, without keys'
complete -c vantryctl -n '__vantryctl_is sessions' -s a -l all -d 'Also the latest ones that are over'
complete -c vantryctl -n '__vantryctl_is log' -s f -l follow -d 'Go on with each new flow'
complete -c vantryctl -n '__vantryctl_is log' -s n -l lines -x -d 'How many of the latest'
complete -c vantryctl -n '__vantryctl_is log' -s a -l app -x -a '(vantryctl names seen 2>/dev/null)' -d 'Only this application'
complete -c vantryctl -n '__vantryctl_is failures' -l clear -d 'Empty the list'
complete -c vantryctl -n '__vantryctl_is vpn' -s i -l interface -x -a '(ls /sys/class/net)' -d 'Only this interface is the VPN'
for command in rules status apps identify why top sessions log failures check verify
    complete -c vantryctl -n "__vantryctl_is $command" -l json -d 'Print JSON'
end
