// A program that does nothing: built several times, with version resources of
// chosen file versions (and once without one), to stand for the installer
// programs and files whose versions the actions read.
int main()
{
    return 0;
}
