// A mains adapter and a battery. Which of them feeds the machine follows the battery's alarm level,
// the one thing about it that a program in the machine can write: at 1 mAh (1000 in sysfs, in µAh)
// the adapter is unplugged, at any other level it feeds.
DefinitionBlock("", "SSDT", 2, "KORVAN", "POWER", 1)
{
    Scope(\_SB)
    {
        Name(FEED, One)

        Device(ADP0)
        {
            Name(_HID, "ACPI0003")
            Name(_PCL, Package() { \_SB })
            Method(_PSR) { Return(FEED) }
        }

        Device(BAT0)
        {
            Name(_HID, EisaId("PNP0C0A"))
            Name(_PCL, Package() { \_SB })
            Method(_STA) { Return(0x1F) }
            // In mAh and mV.
            Method(_BIF)
            {
                Return(Package() { 1, 5000, 5000, 1, 12000, 500, 100, 10, 10,
                                   "Test", "1", "LION", "Korvane" })
            }
            Method(_BST)
            {
                If (FEED) { Return(Package() { 0, 0, 5000, 12000 }) }
                Return(Package() { 1, 500, 4000, 12000 })
            }
            Method(_BTP, 1)
            {
                If (Arg0 == 1) { FEED = Zero } Else { FEED = One }
                Notify(ADP0, 0x80)
                Notify(BAT0, 0x80)
            }
        }
    }
}
